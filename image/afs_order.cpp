#include <map>

#include "image/afs_reader.h"
#include "image/afs_records.h"

namespace dolm::afs {

namespace {

class OrderCheck {
  public:
    explicit OrderCheck(AfsImage &image) : image_(image) {}

    void run() {
        if (image_.interruption == AfsInterruption::rolled_back &&
            image_.eus[*image_.spare].sequence != image_.sequence + 1) {
            damage("the uncommitted header of EU " + std::to_string(*image_.spare) +
                       " does not follow the newest one",
                   *image_.spare);
        }
        if (image_.eu_count != 0 && !image_.head) {
            image_.damages.push_back({AfsDamage::Rule::order, "no EU holds the log"});
        }
        check_sequences();
        check_log_order();
    }

  private:
    void damage(std::string text, uint32_t eu) {
        image_.damages.push_back(
            {.rule = AfsDamage::Rule::order, .text = std::move(text), .eu = eu});
    }

    void check_sequences() {
        std::map<uint32_t, uint32_t> seen;
        for (uint32_t i = 0; i < image_.eu_count; ++i) {
            const AfsEu &eu = image_.eus[i];
            if (eu.role != AfsRole::log && eu.role != AfsRole::data) {
                continue;
            }
            const auto [other, is_new] = seen.emplace(eu.sequence, i);
            if (!is_new) {
                damage("EU " + std::to_string(other->second) + " and EU " + std::to_string(i) +
                           " have the same sequence " + std::to_string(eu.sequence),
                       i);
            }
        }
    }

    // The log is only in order if its blank EUs come after all the written ones: a page that goes
    // into a blank EU must count as newer than every copy before it.
    void check_log_order() {
        if (!image_.head || !image_.has_file_system) {
            return;
        }
        const AfsEu &head = image_.eus[*image_.head];
        for (uint32_t i = 0; i < image_.eu_count; ++i) {
            const AfsEu &eu = image_.eus[i];
            if (eu.role == AfsRole::log && eu.free == log_slots && eu.sequence < head.sequence) {
                damage("blank log EU " + std::to_string(i) + " is older than the head of the log",
                       i);
            }
        }
    }

    AfsImage &image_;
};

} // namespace

void check_order(AfsImage &image) {
    OrderCheck(image).run();
}

} // namespace dolm::afs
