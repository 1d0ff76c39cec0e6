// A reader of AFS images that shares no code and no header with the store, on purpose: so
// a mistake of the one is not the other's as well. It takes the bytes as they lie on the
// flash, interrupted operations included, and says what a mount would find: geometry, the part
// that each erase unit plays, every page slot, and the files with their contents. Nothing that the
// bytes say is trusted: what does not fit goes into a list of damages and the reader goes on with
// the rest as far as it can.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace dolm {

// The part that a mount gives to an erase unit (EU).
enum class AfsRole : uint8_t {
    log,    // holds metadata pages in the order in which they were written
    data,   // holds 122 file chunks in fixed slots
    spare,  // the target of the next reclaim
    damaged // one unreadable or uncommitted header too many: no mount
};

// Whether the power went inside a reclaim, and what the next mount makes of it.
enum class AfsInterruption : uint8_t {
    none,
    rolled_back,   // the target's header stands, its source was not given up: the target is dropped
    rolled_forward // the source was given up, the target's header was not committed: it counts
};

enum class AfsSlot : uint8_t {
    live,   // the page that a reader of the store gets
    dead,   // written or given up, waits for a reclaim
    free,   // erased, can be written
    outside // past the end of the data area: never used
};

struct AfsEu {
    AfsRole role = AfsRole::damaged;
    bool pending = false;           // its header is written and not committed
    bool erase_count_known = false; // false where the spare's header is gone
    uint32_t sequence = 0;          // write order of the headers; 0 where there is no valid header
    uint32_t erase_count = 0;       // as stored, or the average of the others where it is unknown
    uint16_t next_spare = 0;        // EU that is the spare once this header counts
    uint16_t va_base = 0;           // 0, or page number of the first page of a data EU
    std::vector<AfsSlot> slots;     // 120 for a log EU, 122 for a data EU, none otherwise
    std::vector<std::optional<uint16_t>> pages; // of a log EU, what each slot holds if committed
    unsigned live = 0;                          // slots of each kind
    unsigned dead = 0;
    unsigned free = 0;
};

struct AfsFile {
    enum class Kind : uint8_t { contents, empty, zombie };

    uint32_t number = 0;
    Kind kind = Kind::contents;
    std::vector<uint32_t> chunks;  // relative chunk numbers in file order
    std::vector<uint8_t> contents; // its size is the file's size
};

// A rule of the format that an image breaks, and where, as far as it can be placed.
struct AfsDamage {
    enum class Rule : uint8_t {
        size,        // of the image
        headers,     // too many EUs without a valid header, or with an uncommitted one
        spare,       // no EU is the spare, or another than the headers say
        order,       // of the sequences
        log_entry,   // of the EU's log at the slot
        page,        // of the metadata, in EU and slot: fails its checksum
        file_system, // its header in page 0
        data_eu,     // its place in the data area
        chain,       // of the file; the entry that leads astray lies in the page
        chunk        // of the file, in EU and slot where it has one
    };

    Rule rule = Rule::size;
    std::string text;
    std::optional<uint32_t> eu = {};
    std::optional<uint32_t> slot = {};
    std::optional<uint32_t> page = {};
    std::optional<uint32_t> file = {};
    std::optional<uint32_t> chunk = {};
};

// Where the newest copy of a metadata page lies.
struct AfsPagePlace {
    uint32_t eu = 0;
    uint32_t slot = 0;
};

struct AfsImage {
    uint32_t eu_count = 0;
    AfsInterruption interruption = AfsInterruption::none;
    std::optional<uint32_t> spare; // EU index
    std::optional<uint32_t> head;  // EU index of the log's head
    uint32_t head_slot = 0;        // next slot of the head, 120 when it is full
    uint32_t sequence = 0;         // highest that counts
    std::vector<AfsEu> eus;

    bool has_file_system = false; // the rest is only filled in if a header was found
    uint32_t fs_version = 0;
    uint32_t total_va_size = 0; // bytes
    uint32_t file_count = 0;    // file slots
    uint32_t chunk_count = 0;
    uint32_t data_va_start = 0; // bytes; metadata lies below
    uint32_t used_chunks = 0;
    uint32_t free_chunks = 0;                       // erased, can be handed out without a reclaim
    std::vector<std::optional<AfsPagePlace>> pages; // newest copy of each metadata page
    std::vector<AfsFile> files;                     // by number, zombies included

    std::vector<AfsDamage> damages; // every rule that is broken; none in a sound image, and an
                                    // image that was cut at any point of any operation is sound
};

// Highest and lowest erase count over the EUs whose count is known.
struct AfsWear {
    uint32_t lowest = 0;
    uint32_t highest = 0;
};

AfsImage read_afs_image(std::span<const uint8_t> bytes);

AfsWear afs_wear(const AfsImage &image);

// The damages, one sentence each.
std::vector<std::string> check_invariants(const AfsImage &image);

// The same for bytes.
std::vector<std::string> check_invariants(std::span<const uint8_t> bytes);

} // namespace dolm
