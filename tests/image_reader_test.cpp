// The readers that trust no byte: on every part of an image and on random damage they come to their
// end inside it, and what they call sound is what was there.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "AfsCrc.h"
#include "image/afs_history.h"
#include "image/afs_records.h"
#include "image/afs_survey.h"
#include "image/efs_history.h"
#include "image/efs_layout.h"
#include "image/efs_list.h"
#include "image/efs_records.h"
#include "image/efs_survey.h"
#include "image/fcs_mend.h"
#include "image/member_kind.h"
#include "image/table_mend.h"
#include "proof/afs_store.h"
#include "proof/efs_store.h"
#include "proof/full_set.h"

namespace builders = dolm::proof::builders;
namespace host_session = dolm::proof::host_session;
namespace full_set = dolm::proof::full_set;

namespace {

using namespace dolm;
using dolm::proof::GuardedBytes;
using proof::Files;

std::span<const uint8_t> span_of(const GuardedBytes &guarded, const Bytes &bytes) {
    return {guarded.data(), bytes.size()};
}

// All short lengths, those around each block, and the whole.
std::vector<size_t> lengths(const Bytes &bytes, size_t block) {
    std::vector<size_t> all;
    for (size_t size = 0; size <= std::min<size_t>(200, bytes.size()); ++size) {
        all.push_back(size);
    }
    for (size_t at = block; at < bytes.size(); at += block) {
        all.insert(all.end(), {at - 1, at, at + 1, at + block / 3});
    }
    std::erase_if(all, [&](size_t size) { return size >= bytes.size(); });
    all.push_back(bytes.size());
    return all;
}

Bytes head_of(const Bytes &bytes, size_t size) {
    return {bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size)};
}

class ImageReaders : public testing::Test {
  protected:
    void SetUp() override {
        set = full_set::FlashSet();
        layout = read_efs_layout(set.ftbl, set.sku);
        // Rewritten a few times, so that there are older contents and maps.
        proof::EfsStore efs(layout);
        for (uint8_t round = 0; round < 3; ++round) {
            ASSERT_EQ(efs.mount(set.efs), 0U);
            ASSERT_EQ(proof::EfsStore::write(0, 300U + round, round).run(), 0U);
            AfsMount afs(set.qfs);
            const Bytes content(150U * (round + 1), round);
            ASSERT_EQ(afs_writefile(afs.context(), 2, 0, static_cast<uint32_t>(content.size()),
                                    content.data(), 0),
                      0U);
        }
        for (const AfsFile &file : read_afs_image(set.qfs).files) {
            afs_files[file.number] = file.contents;
        }
        for (const EfsFile &file : read_efs_image(set.efs, layout).files) {
            efs_files[file.place.number] = file.contents;
        }
        ASSERT_EQ(afs_files.size(), 7U);
        ASSERT_EQ(efs_files.size(), 3U);
    }

    // Everything that reads an AFS image. Returns how many files it calls sound.
    size_t read_afs(const Bytes &bytes) {
        const GuardedBytes guarded(bytes);
        const auto all = span_of(guarded, bytes);
        const AfsImage image = read_afs_image(all);
        for (const AfsTrace &trace : survey_afs_image(all, image)) {
            EXPECT_LE(trace.at, bytes.size()) << trace.text;
        }
        EXPECT_EQ(check_invariants(all), check_invariants(image));
        if (image.damages.empty()) {
            Bytes copy = bytes;
            EXPECT_EQ(AfsMount(copy).status(), 0U);
        }
        size_t sound = 0;
        if (const auto history = read_afs_history(all)) {
            for (const AfsFileHistory &file : history->files) {
                for (const AfsVersion &version : file.versions) {
                    EXPECT_EQ(contents_of(all, version).size(), version.size);
                }
                if (file.state == AfsFileHistory::State::sound && afs_files.contains(file.number)) {
                    EXPECT_EQ(contents_of(all, file.versions.front()), afs_files[file.number]);
                    ++sound;
                }
            }
        }
        return sound;
    }

    size_t read_efs(const Bytes &bytes) {
        const GuardedBytes guarded(bytes);
        const auto all = span_of(guarded, bytes);
        const EfsImage image = read_efs_image(all, layout);
        if (!image.bms.empty()) {
            for (const EfsTrace &trace : survey_efs_image(all, layout, image)) {
                EXPECT_LE(trace.at, bytes.size()) << trace.text;
            }
        }
        if (const auto own = own_geometry(all)) {
            EXPECT_LT(own->at, bytes.size());
        }
        if (image.damages.empty()) {
            Bytes copy = bytes;
            proof::EfsStore store(layout);
            EXPECT_EQ(store.mount(copy), 0U);
            EXPECT_EQ(store.read_files(), efs_files);
        }
        size_t sound = 0;
        for (const EfsFileHistory &file : read_efs_history(all, layout).files) {
            if (file.state == EfsFileHistory::State::sound && !file.versions.empty()) {
                EXPECT_EQ(file.versions.front().contents, efs_files[file.place.number]);
                ++sound;
            }
        }
        return sound;
    }

    full_set::FlashSet set;
    EfsLayout layout;
    Files afs_files, efs_files;
};

TEST_F(ImageReaders, JudgeAnAfsHeaderByItsNumbersTooAndPutAnyBitOfAPageRight) {
    for (const size_t zeroed : {12U, 4U, 8U}) { // the next spare, the sequence, the erase count
        Bytes header = head_of(set.qfs, 64);
        put_le(header, zeroed, 0, zeroed == 12 ? 2 : 4);
        put_le(header, afs::header_checked_size, ::crc8(header.data(), afs::header_checked_size),
               1);
        EXPECT_EQ(afs::judge_header(header).state == afs::HeaderState::invalid, zeroed != 12);
    }
    Bytes record(64, 0x5A);
    const uint8_t page[] = {7, 0};
    const uint32_t crc = ::crc16(record.data(), 64, page);
    record.resize(66);
    put_le(record, 64, crc, 2);
    for (size_t bit = 0; bit < 66 * 8; bit += 17) {
        Bytes damaged = record;
        damaged[bit / 8] ^= static_cast<uint8_t>(1 << bit % 8);
        EXPECT_EQ(afs::with_bit_put_right(afs::PageRecord(damaged), 7), record) << bit;
    }
}

TEST_F(ImageReaders, TakeAnImageOfEveryLength) {
    for (const size_t size : lengths(set.qfs, 8192)) {
        SCOPED_TRACE("AFS " + std::to_string(size));
        const size_t sound = read_afs(head_of(set.qfs, size));
        EXPECT_EQ(read_afs_image(head_of(set.qfs, size)).damages.empty(), size == set.qfs.size());
        EXPECT_TRUE(sound == afs_files.size() || size < set.qfs.size());
    }
    for (const size_t size : lengths(set.efs, 4096)) {
        SCOPED_TRACE("EFS " + std::to_string(size));
        const size_t sound = read_efs(head_of(set.efs, size));
        EXPECT_TRUE(sound == efs_files.size() || size < set.efs.size());
    }
}

// Short runs of random bytes, and bits; many of them where nothing is written.
TEST_F(ImageReaders, CallNothingSoundThatIsNot) {
    std::mt19937 random(20261123);
    size_t whole = 0;
    for (int i = 0; i < 300; ++i) {
        SCOPED_TRACE(i);
        for (Bytes *image : {&set.qfs, &set.efs}) {
            Bytes damaged = *image;
            const size_t at = random() % damaged.size();
            const size_t size = std::min<size_t>(damaged.size() - at, size_t{1} << random() % 8);
            for (size_t k = at; k < at + size; ++k) {
                damaged[k] = static_cast<uint8_t>(i % 2 == 0 ? random() : damaged[k] ^ 4);
            }
            const bool is_afs = image == &set.qfs;
            const size_t sound = is_afs ? read_afs(damaged) : read_efs(damaged);
            whole += sound == (is_afs ? afs_files : efs_files).size() ? 1 : 0;
        }
    }
    EXPECT_GT(whole, 100U) << "most of the bytes do not matter to a file in force";
}

TEST_F(ImageReaders, JudgeARecordByItsPlace) {
    const EfsImage image = read_efs_image(set.efs, layout);
    for (const EfsPlace &place : layout.files) {
        EXPECT_TRUE(is_good_record(set.efs, layout, image, place));
    }
    const EfsPlace places[] = {{0, 0, 0, 301},     // shorter than what is there
                               {0, 3, 0, 1000},    // nothing is there
                               {0, 0, 4, 1000},    // no record begins there
                               {0, 0, 4073, 1000}, // none could
                               {0, 7, 0, 1000}};
    for (const EfsPlace &place : places) {
        EXPECT_FALSE(is_good_record(set.efs, layout, image, place))
            << place.block << " at " << place.offset;
    }
}

// An image of five files and the table with their list. What lies in a file may look like a record,
// in its first block and in those that it goes on in.
class EfsLists : public ImageReaders {
  protected:
    void SetUp() override {
        ImageReaders::SetUp();
        list({{0, 0, 0, 1000}, {1, 2, 2500, 100}, {2, 3, 2500, 100}, {3, 2, 0, 100}});
        image = build({{0, "plain"}, {1, "amid"}, {2, "behind"}, {3, "no rest"}});
        const std::string inner = record_of(0);
        const std::string amid = record_of(1);
        const std::string behind = record_of(2);
        other_block = block_of(2);
        list(
            {{0, 0, 0, 1000}, {1, 1, 0, 9000}, {2, 0, 2000, 900}, {3, 3, 2500, 100}, {4, 4, 0, 9}});
        image = build({{0, "plain"},
                       {1, std::string(4072, 'E') + amid + std::string(4072, 'E') + behind + "end"},
                       {2, "x" + inner + "x"},
                       {3, "behind"}});
    }

    void list(std::vector<builders::EfsRecord> records) {
        builders::FileTable source;
        source.sku_rows = {{1, {}}};
        source.geometry_rows = {full_set::geometry};
        source.geometry_rows[0].records = std::move(records);
        set.ftbl = source.build();
        layout = read_efs_layout(set.ftbl, 1);
    }

    Bytes build(const std::map<uint16_t, std::string> &contents) {
        std::vector<full_set::SetFile> files;
        for (const auto &[id, content] : contents) {
            files.push_back({"", 0, full_set::in_efs, id, 9000, "", content});
        }
        return set.build_efs(files);
    }

    size_t block_at(uint32_t logical) const {
        const EfsImage read = read_efs_image(image, layout);
        return (layout.bm_num + size_t{read.valid_map[logical]}) * efs::block_size;
    }

    Bytes block_of(uint32_t logical) const {
        const auto begin = image.begin() + static_cast<std::ptrdiff_t>(block_at(logical));
        return {begin, begin + efs::block_size};
    }

    std::string record_of(size_t file) const {
        const EfsPlace &place = layout.files[file];
        const size_t at = block_at(place.block) + efs::data_offset + place.offset;
        const uint8_t *record = &image[at];
        return {record, record + efs::record_head_size + get_le16(image, at)};
    }

    Bytes image;
    Bytes other_block; // with a file at its front
};

std::vector<std::vector<uint32_t>> numbers_of(const std::vector<EfsPlace> &places) {
    std::vector<std::vector<uint32_t>> all;
    for (const EfsPlace &place : places) {
        all.push_back({place.number, place.block, place.offset, place.max_size});
    }
    return all;
}

TEST_F(EfsLists, AreFoundInTheImageAlone) {
    using Numbers = std::vector<std::vector<uint32_t>>;
    const auto found = [&](const Bytes &bytes) {
        return numbers_of(find_places_in_image(bytes, layout, 20));
    };
    const uint32_t long_size = 4072 + 8 + 4072 + 10 + 3;
    EXPECT_EQ(found(image), (Numbers{{20, 0, 0, 1996},
                                     {21, 0, 2000, 11},
                                     {22, 1, 0, long_size},
                                     {23, 3, 2500, 6},
                                     {24, 4, 0, 0}}));
    Bytes zeros = image;
    std::fill_n(zeros.begin() + static_cast<std::ptrdiff_t>(block_at(0) + efs::data_offset),
                efs::data_size, 0);
    EXPECT_EQ(found(zeros), (Numbers{{20, 1, 0, long_size}, {21, 3, 2500, 6}, {22, 4, 0, 0}}));

    // A file is one with the whole of its rest only.
    const auto has_long_file = [&](const Bytes &bytes) {
        const Numbers places = found(bytes);
        return std::any_of(places.begin(), places.end(),
                           [](const auto &place) { return place[1] == 1; });
    };
    Bytes changed = image;
    changed[block_at(3) + efs::data_offset + 6] ^= 1;
    EXPECT_FALSE(has_long_file(changed));
    image = build({{1, std::string(4072, 'E') + "no rest"}});
    EXPECT_TRUE(has_long_file(image));
    changed = image;
    std::copy(other_block.begin(), other_block.end(),
              changed.begin() + static_cast<std::ptrdiff_t>(block_at(2)));
    EXPECT_FALSE(has_long_file(changed)) << "the next block has a file of its own, as long";
}

// Whatever is wrong with one record, the others are told; not what lies behind two.
TEST_F(EfsLists, AreFoundInATableThatDoesNotLeadToThem) {
    const FileTable table = read_file_table(set.ftbl);
    const auto begin =
        set.ftbl.begin() + static_cast<std::ptrdiff_t>(table.efst_rows[0].records[0].at);
    const Bytes list(begin, begin + 5 * 60);
    const auto found = [&](const Bytes &bytes) {
        Bytes astray(7, 0x11);
        astray.insert(astray.end(), bytes.begin(), bytes.end());
        astray.insert(astray.end(), 200, 0xEE);
        std::vector<uint32_t> numbers;
        for (const EfsPlace &place : find_listed_places(astray, image, layout)) {
            numbers.push_back(place.number);
        }
        return numbers;
    };
    const auto changed = [&](size_t record, size_t field, uint32_t value) {
        Bytes bytes = list;
        put_le(bytes, record * 60 + field, value, 2);
        return bytes;
    };
    using Numbers = std::vector<uint32_t>;
    EXPECT_EQ(numbers_of(find_listed_places(set.ftbl, image, layout)), numbers_of(layout.files));
    EXPECT_EQ(found(list), (Numbers{0, 1, 2, 3, 4}));
    EXPECT_EQ(found(changed(2, ftbl::record_block_offset, 7)), (Numbers{0, 1, 3, 4}));
    EXPECT_EQ(found(changed(2, ftbl::record_start_offset, 4073)), (Numbers{0, 1, 3, 4}));
    EXPECT_EQ(found(changed(4, 0, 3)), (Numbers{0, 1, 2, 3})) << "a number twice";
    EXPECT_EQ(found(changed(3, 0, 0x7FF)), (Numbers{0, 1, 2, 0x7FF, 4}));
    EXPECT_EQ(found(changed(3, 0, 0x800)), (Numbers{0, 1, 2, 4}));
    EXPECT_EQ(found(changed(2, ftbl::record_start_offset, 0)), (Numbers{0, 1, 3, 4}))
        << "a place twice";
    EXPECT_EQ(found(changed(3, ftbl::record_start_offset, 2600)), (Numbers{0, 1, 2, 3, 4}))
        << "no good record";
    EXPECT_EQ(found(changed(4, ftbl::record_start_offset, 2600)), (Numbers{0, 1, 2, 3}))
        << "no good record, and none behind it";
    Bytes broken = changed(1, ftbl::record_block_offset, 7);
    broken[2 * 60 + ftbl::record_block_offset] = 7;
    EXPECT_EQ(found(broken), (Numbers{3, 4}));
    EXPECT_EQ(found(head_of(list, 60)), Numbers{}) << "a single one may be chance";
    Bytes two = head_of(list, 120);
    two.insert(two.end(), 131, 0xEE);
    two.insert(two.end(), list.begin() + 120, list.end());
    EXPECT_EQ(found(two), (Numbers{2, 3, 4})) << "the longer one";
    EXPECT_EQ(found({}), Numbers{});
}

TEST_F(ImageReaders, KnowAMemberByItsContentAlone) {
    const Bytes vync = host_session::with_head(set.orvel);
    const std::pair<const Bytes *, MemberKind> members[] = {
        {&set.orvel, MemberKind::base_store}, {&vync, MemberKind::override_store},
        {&set.ftbl, MemberKind::file_table},  {&set.qfs, MemberKind::afs_image},
        {&set.efs, MemberKind::efs_image},
    };
    for (const auto &[bytes, kind] : members) {
        EXPECT_EQ(recognise(*bytes), kind);
        for (const size_t size : lengths(*bytes, 4096)) {
            const Bytes part = head_of(*bytes, size);
            const auto found = recognise(part);
            EXPECT_TRUE(!found || *found == kind) << size;
            const auto store = override_store(part);
            EXPECT_LE(store.size(), size < 16 ? 0 : size - 16);
        }
    }
    // A head of a BM anywhere but in a BM of its own count is none.
    Bytes shifted(set.efs.size(), 0xFF);
    std::copy_n(set.efs.begin() + 4096, 8192, shifted.begin() + 5 * 4096);
    std::copy_n(set.efs.begin(), 4096, shifted.begin() + 3 * 4096);
    EXPECT_EQ(recognise(shifted), std::nullopt);
    EXPECT_FALSE(own_geometry(shifted).has_value());
    EXPECT_EQ(override_store(vync).size(), set.orvel.size());
    Bytes longer = vync;
    longer.resize(vync.size() + 40);
    EXPECT_EQ(override_store(longer).size(), set.orvel.size()) << "as long as its head says";
}

// ---- Tables ----

// A store as the front end writes it, of names in order.
class TableReaders : public testing::Test {
  protected:
    static std::string name_of(uint32_t number) {
        return number >= 10 && number < 30 ? "/home/" + std::to_string(number) : "";
    }
    static std::vector<uint32_t> numbers() {
        std::vector<uint32_t> all;
        for (uint32_t number = 10; number < 30; ++number) {
            all.push_back(number);
        }
        return all;
    }
    static constexpr StoreEvidence sure{.has_sure_end = true, .has_sure_names = true};
    static Bytes store() {
        std::vector<builders::StoreFile> files;
        for (uint32_t i = 0; i < 12; ++i) {
            files.push_back({10 + i, std::string(1 + i * 7 % 20, static_cast<char>('a' + i)),
                             static_cast<uint16_t>(i)});
        }
        return builders::store_of(files);
    }
    // By number.
    static std::map<uint32_t, Bytes> payloads(const std::vector<MendedRecord> &records) {
        std::map<uint32_t, Bytes> found;
        for (const MendedRecord &record : records) {
            if (record.payload) {
                found[record.number] = {record.payload->begin(), record.payload->end()};
            }
        }
        return found;
    }
};

TEST_F(TableReaders, AStoreThatIsSoundIsMendedToItself) {
    const Bytes sound = store();
    const auto mended = mend_store(sound, name_of, numbers(), sure).records;
    for (const MendedRecord &record : mended) {
        EXPECT_EQ(record.doubt, "");
    }
    EXPECT_EQ(write_store(mended), sound);
    EXPECT_EQ(write_store({}), Bytes(4));
}

TEST_F(TableReaders, AWrongOffsetOrSizeOrCountCostsNothing) {
    const Bytes sound = store();
    const auto expected = payloads(mend_store(sound, name_of, numbers(), sure).records);
    for (size_t at = 0; at < 4 + 12 * 12; ++at) {
        const size_t field = at < 4 ? 4 : (at - 4) % 12;
        if (field < 4 || field >= 10) {
            continue; // a number, which the names tell, or an opaque word, which nothing does
        }
        for (const int bits : {0x01, 0x10, 0xFF}) {
            SCOPED_TRACE(std::to_string(at) + ", " + std::to_string(bits));
            Bytes damaged = sound;
            damaged[at] = static_cast<uint8_t>(damaged[at] ^ bits);
            const GuardedBytes guarded(damaged);
            EXPECT_EQ(
                payloads(mend_store(span_of(guarded, damaged), name_of, numbers(), sure).records),
                expected);
        }
    }
}

// Payloads with gaps between them, in any order: there is nothing to hold an offset against.
TEST_F(TableReaders, AStoreThatIsNotPackedIsTakenAsItSays) {
    const Bytes packed = store();
    const size_t records_end = 4 + 12 * 12;
    Bytes loose(packed.begin(), packed.begin() + records_end);
    for (size_t i = 12; i-- > 0;) {
        const size_t record = 4 + 12 * i;
        const size_t at = get_le32(packed, record + 4);
        put_le(loose, record + 4, static_cast<uint32_t>(loose.size()), 4);
        const auto payload = std::span(packed).subspan(at, get_le16(packed, record + 8));
        loose.insert(loose.end(), payload.begin(), payload.end());
        loose.resize(loose.size() + 3);
    }
    auto expected = payloads(mend_store(packed, name_of, numbers(), sure).records);
    const auto mended = mend_store(loose, name_of, numbers(), sure).records;
    EXPECT_EQ(payloads(mended), expected);
    for (const MendedRecord &record : mended) {
        EXPECT_EQ(record.doubt, "");
    }
    Bytes shared = loose;
    std::copy_n(loose.begin() + 4 + 12 * 5 + 4, 4, shared.begin() + 4 + 12 * 3 + 4);
    for (const MendedRecord &record : mend_store(shared, name_of, numbers(), sure).records) {
        EXPECT_EQ(record.doubt.empty(), record.number != 13 && record.number != 15);
    }
    put_le(loose, 4 + 12 * 3, 15, 4);
    expected.erase(13);
    expected.erase(15);
    EXPECT_EQ(payloads(mend_store(loose, name_of, numbers(), sure).records), expected)
        << "two claim number 15";
}

TEST_F(TableReaders, AWrongNumberLosesNoOtherValue) {
    const Bytes sound = store();
    const auto expected = payloads(mend_store(sound, name_of, numbers(), sure).records);
    for (uint32_t i = 0; i < 12; ++i) {
        for (const uint32_t number : {0U, 777U, 10 + (i + 5) % 12, 25U}) {
            SCOPED_TRACE(std::to_string(i) + " becomes " + std::to_string(number));
            Bytes damaged = sound;
            put_le(damaged, 4 + 12 * i, number, 4);
            for (const auto &[found, payload] :
                 payloads(mend_store(damaged, name_of, numbers(), sure).records)) {
                const auto same = expected.find(found);
                EXPECT_TRUE(same != expected.end()
                                ? payload == same->second
                                : found == number && payload == expected.at(10 + i))
                    << found;
            }
        }
    }
}

// If the table may have lost a name, a record without one is not that of the only file left.
TEST_F(TableReaders, GiveNoRecordToAFileForWantOfAnother) {
    Bytes damaged = store();
    put_le(damaged, 4 + 12 * 5, 777, 4);
    const auto all = payloads(mend_store(store(), name_of, numbers(), sure).records);
    for (const bool has_sure_records : {false, true}) {
        const StoreEvidence evidence{has_sure_records, true, false};
        const auto files = has_sure_records ? numbers() : std::vector<uint32_t>();
        const auto found = payloads(mend_store(damaged, name_of, files, evidence).records);
        EXPECT_FALSE(found.contains(15));
        EXPECT_EQ(found.at(777), all.at(15));
    }
}

TEST_F(TableReaders, TakeStoresOfEveryLengthAndAnyBytes) {
    const Bytes sound = store();
    std::mt19937 random(7);
    for (size_t round = 0; round < 2 * sound.size(); ++round) {
        Bytes bytes = head_of(sound, std::min(round, sound.size()));
        for (size_t k = 0; round > sound.size() && k < 3; ++k) {
            bytes[random() % (round % 2 == 0 ? 40 : bytes.size())] = static_cast<uint8_t>(random());
        }
        SCOPED_TRACE(round);
        const GuardedBytes guarded(bytes);
        const auto all = span_of(guarded, bytes);
        const FcsStore read = read_fcs_store(all);
        EXPECT_LE(read.records.size() * fcs::record_size + 4, std::max<size_t>(4, bytes.size()));
        for (const FcsRecord &record : read.records) {
            EXPECT_EQ(read.has_payload(record) ? read.payload(record).size() : record.size,
                      record.size);
        }
        const Bytes written = write_store(mend_store(all, name_of, numbers(), sure).records);
        EXPECT_TRUE(is_of_kind(written, MemberKind::base_store));
    }
}

// What a file table tells twice, or its EFS image tells too.
TEST_F(TableReaders, AFileTableIsMendedWhereItCanBe) {
    builders::FileTable source;
    source.sku_rows = {{1, {}}, {2, {}}};
    for (uint32_t i = 0; i < 20; ++i) {
        source.sku_rows[i % 2].entries.push_back({"/home/" + std::to_string(i), 100 + i});
    }
    source.geometry_rows = {full_set::geometry, full_set::geometry};
    source.geometry_rows[1].sku = 2;
    const Bytes sound = source.build();
    const Bytes image = full_set::FlashSet().efs;
    const auto mend = [&](const Bytes &bytes) { return mend_file_table(bytes, 1, image); };
    EXPECT_EQ(mend(sound).bytes, sound);
    EXPECT_TRUE(mend(sound).mended.empty());

    const size_t section = source.section_at();
    const struct {
        const char *what;
        size_t at;
        uint32_t value;
        const char *told;
    } damages[] = {
        {"magic", 0, 0x12345678, "its magic was wrong"},
        {"no rows", 12, 0, "its number of rows was wrong"},
        {"more rows than there can be", 12, 11, "its number of rows was wrong"},
        {"a row less", 12, 1, "its number of rows was wrong"},
        {"entries astray", 20, 0x7FFFFFFF, "the place of the entries of SKU 1"},
        {"too few entries", 20 + 4, 0, nullptr},
        {"entries behind the end", 24, 1000, "the number of entries of SKU 1"},
        {"entries that begin in the middle", 36, get_le32(sound, 36) + 5 * 68,
         "the place of the entries of SKU 2"},
        {"the other row's, the same", 36 + 4, 1000, "the number of entries of SKU 2"},
        {"SKU", 16, 9, "the SKU of a row was wrong"},
        {"magic of the section", section, 0, "the magic of its EFS section"},
        {"rows of the section", section + 12, 0, "the number of rows of its EFS section"},
        {"SKU of a row of EFS", section + 16 + 40, 9, "the SKU of a row of EFS was wrong"},
        {"block maps", section + 16 + 16, 3, "the geometry of EFS for SKU 1"},
        {"spare blocks of the other", section + 16 + 40 + 24, 4, "the geometry of EFS for SKU 2"},
        {"list of EFS astray", section + 16 + 4, 0x7FFFFFFF, "the list of EFS for SKU 1"},
    };
    for (const auto &[what, at, value, told] : damages) {
        SCOPED_TRACE(what);
        Bytes damaged = sound;
        put_le(damaged, at, value, 4);
        const MendedTable mended = mend(damaged);
        const FileTable table = read_file_table(mended.bytes);
        ASSERT_EQ(table.rows.size(), 2U);
        if (told == nullptr) {
            EXPECT_EQ(table.rows[0].entries.size(), 0U) << "an empty SKU is a SKU";
            continue;
        }
        ASSERT_FALSE(mended.mended.empty());
        EXPECT_NE(mended.mended.front().find(told), std::string::npos) << mended.mended.front();
        EXPECT_EQ(table.row_of(1)->entries.size(), 10U);
        EXPECT_EQ(table.row_of(2)->entries.size(), 10U);
        EXPECT_EQ(table.row_of(1)->entries[0].name, "/home/0");
        ASSERT_NE(table.efst_row_of(2), nullptr);
        EXPECT_EQ(table.efst_row_of(1)->records.size(), 3U);
        EXPECT_EQ(efs_layout_of(*table.efst_row_of(2)).image_size(), 12U * 4096);
    }
}

TEST_F(TableReaders, TakeFileTablesOfEveryLengthAndAnyBytes) {
    const Bytes sound = full_set::FlashSet().ftbl;
    std::mt19937 random(8);
    for (size_t round = 0; round < 1500; ++round) {
        Bytes bytes = head_of(sound, round < 1000 ? round % sound.size() : sound.size());
        for (size_t k = 0; round >= 1000 && k < 4; ++k) {
            bytes[random() % (round % 2 == 0 ? 120 : bytes.size())] =
                static_cast<uint8_t>(random());
        }
        SCOPED_TRACE(round);
        const FileTable table = read_file_table(bytes);
        for (const FtblRow &row : table.rows) {
            EXPECT_LE(row.entries.size(), row.entries_count);
            for (const FtblEntry &entry : row.entries) {
                EXPECT_LE(entry.at + ftbl::entry_size, bytes.size());
                EXPECT_LE(entry.name.size(), ftbl::name_size);
            }
        }
        const MendedTable mended = mend_file_table(bytes, 1, {});
        EXPECT_EQ(mended.bytes.size(), bytes.size());
        EXPECT_EQ(mend_file_table(mended.bytes, 1, {}).bytes, mended.bytes)
            << "mended once, there is nothing left to mend";
    }
}

// What a layout can be, and what the list may name.
TEST_F(TableReaders, AnEfsLayoutIsOneThatAnImageCanHave) {
    const struct {
        size_t field;
        uint32_t value;
        const char *problem; // null: none
    } changes[] = {
        {ftbl::efst_bm_num_offset, 0, "none that an image can have"},
        {ftbl::efst_bm_num_offset, 255, nullptr},
        {ftbl::efst_bm_num_offset, 256, "none that an image can have"},
        {ftbl::efst_valid_blocks_offset, 253, nullptr},
        {ftbl::efst_valid_blocks_offset, 254, "none that an image can have"},
        {ftbl::efst_spare_blocks_offset, 249, nullptr},
        {ftbl::efst_spare_blocks_offset, 250, "none that an image can have"},
        {ftbl::efst_files_num_offset, 3, nullptr},
        {ftbl::efst_files_num_offset, 2, "names file 2 of 2"},
        {ftbl::efst_files_num_offset, 65536, nullptr},
        {ftbl::efst_files_num_offset, 65537, "none that an image can have"},
        {ftbl::efst_record_count_offset, 1000, "runs past its end"},
        {0, 7, "no EFS row for SKU 1"},
    };
    builders::FileTable source;
    source.sku_rows = {{1, {{"/home/a", 1}}}};
    source.geometry_rows = {full_set::geometry};
    const Bytes sound = source.build();
    for (const auto &[field, value, problem] : changes) {
        SCOPED_TRACE(std::to_string(field) + " is " + std::to_string(value));
        Bytes changed = sound;
        put_le(changed, source.geometry_at() + field, value, 4);
        try {
            EXPECT_EQ(read_efs_layout(changed, 1).files.size(), 3U);
            EXPECT_EQ(problem, nullptr);
        } catch (const std::runtime_error &refusal) {
            ASSERT_NE(problem, nullptr) << refusal.what();
            EXPECT_NE(std::string(refusal.what()).find(problem), std::string::npos)
                << refusal.what();
        }
    }
    EXPECT_THROW(read_efs_layout(Bytes(1024), 1), std::runtime_error);
    EXPECT_THROW(read_efs_layout(builders::FileTable{{{1, {}}}, {}}.build(), 1),
                 std::runtime_error);
}

} // namespace
