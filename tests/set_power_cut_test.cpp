// A whole termination over both stores, from the front end down, cut at every write and erase.
#include <gtest/gtest.h>

#include "image/efs_layout.h"
#include "power_cut_run.h"
#include "proof/full_set.h"
#include "proof/set_store.h"

namespace dolm_test {
namespace {

using namespace dolm::proof;

std::vector<uint8_t> bytes(const std::string &text) {
    return {text.begin(), text.end()};
}

TEST(SetPowerCut, EveryFileOfATerminationIsOldOrNew) {
    const std::vector<NewValue> values = {{"/home/afs/plain", bytes(std::string(500, 'p'))},
                                          {"/home/afs/long", bytes("short")},
                                          {"/home/efs/plain", bytes("changed")},
                                          {"/home/efs/long", bytes(std::string(4500, 'e'))},
                                          {"/home/mca/deploy", bytes("still deployed")}};
    full_set::FlashSet set;
    Image image = set.qfs;
    image.insert(image.end(), set.efs.begin(), set.efs.end());
    SetStore store({set.orvel, {}, set.ftbl, set.sku}, set.qfs.size(),
                   dolm::read_efs_layout(set.ftbl, set.sku));
    for (const auto &[name, changes] :
         {std::pair("change", values), std::pair("rewrite", std::vector<NewValue>{})}) {
        const Change termination = store.termination(image, changes);
        Image copy = image;
        ASSERT_EQ(store.mount(copy), 0U);
        const Files files = store.read_files();
        store.unmount();
        expect_every_cut_holds("set", store, {name, image, files, {termination}});
    }
}

} // namespace
} // namespace dolm_test
