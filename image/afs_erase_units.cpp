#include "image/afs_reader.h"

#include <algorithm>

#include "image/afs_records.h"

namespace dolm::afs {

namespace {

class EraseUnits {
  public:
    EraseUnits(std::span<const uint8_t> bytes, AfsImage &image) : bytes_(bytes), image_(image) {}

    bool read() {
        if (!count_eus()) {
            return false;
        }
        read_headers();
        settle_roles();
        repair_erase_count();
        return true;
    }

  private:
    using Rule = AfsDamage::Rule;

    void damage(AfsDamage damage) { image_.damages.push_back(std::move(damage)); }

    bool count_eus() {
        const size_t count = bytes_.size() / eu_size;
        if (count == 0 || count > max_eu_count) {
            damage({Rule::size,
                    "the image has " + std::to_string(count) + " EUs; a store has 1 to 255"});
            return false;
        }
        image_.eu_count = static_cast<uint32_t>(count);
        image_.eus.resize(count);
        image_.sequence = image_.eu_count - 1; // a format leaves no lower one
        return true;
    }

    // Fills in the rows and notes the EUs whose part is not plain from the header alone.
    void read_headers() {
        for (uint32_t i = 0; i < image_.eu_count; ++i) {
            const std::span<const uint8_t> header = bytes_.subspan(header_at(i), header_size);
            const Header judged = judge_header(header);
            AfsEu &eu = image_.eus[i];
            eu.erase_count = get_le32(header, 8);
            eu.erase_count_known = judged.erase_count_known;
            if (judged.state == HeaderState::invalid) {
                invalid_.push_back(i);
                continue;
            }
            eu.sequence = get_le32(header, 4);
            eu.next_spare = get_le16(header, 12);
            eu.va_base = get_le16(header, 14);
            if (judged.state == HeaderState::pending) {
                eu.pending = true;
                pending_.push_back(i);
                continue;
            }
            eu.role = eu.va_base == 0 ? AfsRole::log : AfsRole::data;
            if (eu.sequence >= image_.sequence) {
                image_.sequence = eu.sequence;
                newest_ = i;
            }
        }
    }

    // A reclaim erases the spare, fills it, writes its header, gives the source up and commits the
    // header. So at most one EU has no header and at most one has an uncommitted one.
    void settle_roles() {
        if (invalid_.size() > 1 || pending_.size() > 1) {
            damage({Rule::headers, std::to_string(invalid_.size()) +
                                       " EUs without a valid header and " +
                                       std::to_string(pending_.size()) +
                                       " with an uncommitted one; at most one of each can be"});
        } else if (pending_.empty() && invalid_.empty()) {
            damage({Rule::spare, "no EU is the spare"});
        } else if (pending_.empty()) {
            make_spare(invalid_.front());
            check_spare_at_rest();
        } else if (invalid_.empty()) {
            image_.interruption = AfsInterruption::rolled_back;
            make_spare(pending_.front());
        } else {
            image_.interruption = AfsInterruption::rolled_forward;
            make_spare(invalid_.front());
            roll_forward(pending_.front());
        }
    }

    void check_spare_at_rest() {
        if (!newest_) {
            damage({Rule::spare, "no header is as new as a format leaves them"});
        } else if (image_.eus[*newest_].next_spare != *image_.spare) {
            damage({.rule = Rule::spare,
                    .text = "the newest header names EU " +
                            std::to_string(image_.eus[*newest_].next_spare) +
                            " as the spare, but EU " + std::to_string(*image_.spare) + " is",
                    .eu = newest_});
        }
    }

    void roll_forward(uint32_t target) {
        AfsEu &eu = image_.eus[target];
        eu.role = eu.va_base == 0 ? AfsRole::log : AfsRole::data;
        image_.sequence = eu.sequence; // the newest, unless an old header lost its state byte
        for (const AfsEu &other : image_.eus) {
            image_.sequence = std::max(image_.sequence, other.sequence);
        }
        if (eu.next_spare != *image_.spare) {
            damage({.rule = Rule::spare,
                    .text = "the uncommitted header of EU " + std::to_string(target) +
                            " names EU " + std::to_string(eu.next_spare) +
                            " as the spare, but EU " + std::to_string(*image_.spare) + " is",
                    .eu = target});
        }
    }

    void make_spare(uint32_t eu) {
        image_.spare = eu;
        image_.eus[eu].role = AfsRole::spare;
        image_.eus[eu].va_base = 0;
    }

    void repair_erase_count() {
        if (!image_.spare || image_.eus[*image_.spare].erase_count_known || image_.eu_count < 2) {
            return;
        }
        uint64_t sum = 0;
        for (uint32_t i = 0; i < image_.eu_count; ++i) {
            sum += i == *image_.spare ? 0 : image_.eus[i].erase_count;
        }
        image_.eus[*image_.spare].erase_count = static_cast<uint32_t>(sum / (image_.eu_count - 1));
    }

    std::span<const uint8_t> bytes_;
    AfsImage &image_;
    std::vector<uint32_t> invalid_;  // EUs without a valid header
    std::vector<uint32_t> pending_;  // EUs with an uncommitted header
    std::optional<uint32_t> newest_; // EU with the newest committed header
};

} // namespace

bool read_erase_units(std::span<const uint8_t> bytes, AfsImage &image) {
    return EraseUnits(bytes, image).read();
}

} // namespace dolm::afs
