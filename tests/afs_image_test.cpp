// The host's builder of AFS images and its reader, which the other tests trust.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <type_traits>
#include <vector>

#include "Afs.h"
#include "AfsFtl.h"
#include "afs/ftl_format.h"
#include "image/afs_history.h"
#include "image/afs_image.h"
#include "proof/afs_build.h"

namespace {

using dolm::AfsLayout;
using Header = dolm::afs_eu_header;
using Image = std::vector<uint8_t>;

// EU 0 and 1 hold the log, 2 and 3 data, 4 is the spare.
constexpr AfsLayout layout{5 * AFS_EU_SIZE, 2, 65};

Image populated() {
    const std::vector<dolm::AfsFileInput> files{
        {3, std::vector<uint8_t>(100, 0xA5)}, {9, {}}, {64, std::vector<uint8_t>(64, 0x5A)}};
    return dolm::build_afs_image(layout, files);
}

TEST(AfsBuild, SaysWhatDoesNotFit) {
    const std::vector<uint8_t> byte(1);
    const struct {
        AfsLayout layout;
        std::vector<dolm::AfsFileInput> files;
        const char *message;
    } cases[] = {
        {{5 * AFS_EU_SIZE + 1, 2, 65}, {}, "no multiple"},
        {{3 * AFS_EU_SIZE, 1, 65}, {}, "is not from 32768"},
        {{256 * AFS_EU_SIZE, 2, 65}, {}, "to 2088960"},
        {{5 * AFS_EU_SIZE, 2, 64}, {}, "64 AFS file slots"},
        {{5 * AFS_EU_SIZE, 0, 65}, {}, "0 data EUs"},
        // 121 metadata pages take two EUs, and the log one more.
        {{27 * AFS_EU_SIZE, 24, 930}, {}, "3 EUs for their log and a spare they need 229376 bytes"},
        {layout, {{65, byte}}, "AFS file 65"},
        {layout, {{1, std::vector<uint8_t>(15617)}}, "245 chunks of 64 bytes, there are 244"},
    };
    for (const auto &wrong : cases) {
        try {
            dolm::build_afs_image(wrong.layout, wrong.files);
            ADD_FAILURE() << wrong.message;
        } catch (const dolm::AfsBuildError &error) {
            EXPECT_NE(std::string(error.what()).find(wrong.message), std::string::npos)
                << error.what();
        }
    }
    EXPECT_EQ(dolm::afs_geometry({28 * AFS_EU_SIZE, 24, 930}).log_eus, 3U);
}

using Damage = std::function<void(Image &)>;

uint8_t *eu_at(Image &image, uint32_t eu, uint32_t offset = 0) {
    return &image[size_t{eu} * AFS_EU_SIZE + offset];
}

Damage byte(uint32_t eu, uint32_t offset, uint8_t value) {
    return [=](Image &image) { *eu_at(image, eu, offset) = value; };
}

// A field of a header, with a checksum that fits.
template <typename T>
Damage header(uint32_t eu, T Header::*field, std::type_identity_t<T> value) {
    return [=](Image &image) {
        Header changed = dolm::load_eu_header(eu_at(image, eu));
        changed.*field = value;
        dolm::store_eu_header(eu_at(image, eu), changed);
    };
}

// A reclaim of EU 3 that was cut before it gave that up.
Damage uncommitted_header(uint32_t sequence) {
    return [=](Image &image) {
        Header copy = dolm::load_eu_header(eu_at(image, 3));
        copy.sequence = sequence;
        dolm::store_eu_header(eu_at(image, 4), copy);
        *eu_at(image, 4, dolm::eu_state_offset) = dolm::eu_state_pending;
    };
}

Damage both(const Damage &first, const Damage &second) {
    return [=](Image &image) {
        first(image);
        second(image);
    };
}

// The newest copy of a metadata page.
Damage spoil_page(uint32_t page) {
    return [=](Image &image) {
        const dolm::AfsPagePlace place = dolm::read_afs_image(image).pages[page].value();
        *eu_at(image, place.eu, dolm::log_slot_offset(place.slot)) ^= 1;
    };
}

// Two bytes of the metadata, written through the store with all their checksums.
Damage metadata(uint32_t va, uint16_t value) {
    return [=](Image &image) {
        dolm::AfsMount mount(image);
        uint8_t page[AFS_PAGE_SIZE];
        ASSERT_EQ(afs_physical_ftl_read_page(mount.context(), va, AFS_PAGE_SIZE, page, 0), 0U);
        dolm::store_le16(page + va % AFS_PAGE_SIZE, value);
        ASSERT_EQ(afs_physical_ftl_write_page(mount.context(), va, AFS_PAGE_SIZE, page, 0), 0U);
    };
}

// Where the log of EU 0 ends.
Damage last_log_entry(uint16_t page) {
    return [=](Image &image) {
        const dolm::AfsImage sound = dolm::read_afs_image(image);
        const uint32_t slot = sound.head_slot - 1;
        const uint16_t link = sound.eus[0].pages[slot - 1].value();
        dolm::store_le16(eu_at(image, 0, dolm::log_entry_offset(slot)),
                         dolm::log_chain(link, page));
    };
}

Damage entry(uint32_t id, uint16_t value) {
    return metadata(14 + 2 * id, value);
}

// What was in it, or no claim at all: also where a chain leads in a circle.
void expect_no_sound_file_is_damaged(const Image &image) {
    const auto history = dolm::read_afs_history(image);
    for (const dolm::AfsFileHistory &file :
         history ? history->files : std::vector<dolm::AfsFileHistory>{}) {
        if (file.state == dolm::AfsFileHistory::State::sound) {
            const Image content = dolm::contents_of(image, file.versions.front());
            const Image expected =
                file.number == 3 ? Image(100, 0xA5) : Image(file.number == 64 ? 64 : 0, 0x5A);
            EXPECT_EQ(content, expected) << file.number;
        }
    }
}

// The reader names every damage. The store refuses those that it has to see at the mount. What the
// reader shows of sound images is held against the store in every state of the power-cut runs.
TEST(AfsImage, NamesWhatIsBroken) {
    EXPECT_EQ(dolm::check_invariants(populated()), std::vector<std::string>{});
    Image cut = populated();
    uncommitted_header(5)(cut);
    EXPECT_EQ(dolm::check_invariants(cut), std::vector<std::string>{});
    const uint16_t first_chunk = 65 + 122; // of file 3: the newest data EU is filled first
    const struct {
        const char *message;
        Damage damage;
        uint32_t mount_status;
    } cases[] = {
        {"2 EUs without a valid header", byte(3, dolm::eu_crc_offset, 0), 5},
        {"no EU is the spare", header(4, &Header::magic, dolm::eu_magic), 5},
        {"names EU 2 as the spare", header(3, &Header::next_spare, 2), 5},
        {"where no data EU starts", header(3, &Header::va_base, 133), 5},
        {"hold the same pages", header(3, &Header::va_base, 10), 5},
        {"no EU holds the chunks from 122", header(3, &Header::va_base, 0), 0},
        {"have the same sequence 4", header(2, &Header::sequence, 4), 0},
        {"no header is as new", header(3, &Header::sequence, 3), 5},
        {"uncommitted header of EU 4 does not follow", uncommitted_header(6), 0},
        {"no EU holds the log",
         both(header(0, &Header::va_base, 309), header(1, &Header::va_base, 431)), 5},
        {"is older than the head", header(0, &Header::sequence, 9), 5},
        {"which the store does not have", byte(0, dolm::log_map_offset + 1, 0x3A), 5},
        {"metadata page 0 in EU 0", spoil_page(0), 5},
        {"no file-system header", metadata(0, 0), 5},
        {"has 64 files", metadata(12, 64), 5},
        {"no size for this device", metadata(10, 0xFFFF), 5},
        {"has 3948416 bytes, which is no size for this device", metadata(10, 60), 5},
        {"decodes to page 10, which the store does not have", last_log_entry(10), 5},
        {"leads to 64, which is no chunk", entry(5, 64), 5},
        {"leads to 309, which is no chunk", entry(first_chunk, 65 + 244), 5},
        {"already belongs to file 3", entry(64, first_chunk + 1), 0},
        {"chunk 122 already belongs to file 3", entry(first_chunk + 1, first_chunk), 5},
        {"was not written to its end", byte(3, dolm::data_status_offset, 0x7F), 5},
        {"fails its checksum", byte(3, dolm::data_slot_offset(0), 0), 0},
    };
    for (const auto &test : cases) {
        Image image = populated();
        test.damage(image);
        std::string all;
        for (const std::string &text : dolm::check_invariants(image)) {
            all += text + "\n";
        }
        EXPECT_NE(all.find(test.message), std::string::npos) << test.message << "\n got " << all;
        EXPECT_EQ(dolm::AfsMount(image).status(), test.mount_status) << test.message;
        expect_no_sound_file_is_damaged(image);
    }
}

} // namespace
