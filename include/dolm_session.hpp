// A door to the library for hosts in C++20, over qoqfs.h alone and in this header alone: a session
// from start-up to release, values as spans, the reports of the library in a vector, and the head
// of "vync.cfg". What fails throws Failure, which carries the reports that tell why.
//
//     dolmstorage::Session session(std::move(set));
//     session.set("net/hostname", "board");
//     const dolmstorage::Set &saved = session.save();
//
// A process has one library, which works on one session at a time, on one thread at a time.
#ifndef DOLM_SESSION_HPP
#define DOLM_SESSION_HPP

#include <algorithm>
#include <limits>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "qoqfs.h"

namespace dolmstorage {

using Bytes = std::vector<uint8_t>;

// One report of the library.
struct Report {
    ErrorLevel level;
    ImageToolsErrorName number;
    std::string text; // of the catalogue; empty for number 0
    std::string message;
};

// "error 405: Failed to load ftbl file. Library status code: 1"
inline std::string to_string(const Report &report) {
    std::string line = report.level >= ERROR_LEVEL_ERROR ? "error " : "warning ";
    line += std::to_string(report.number) + ":";
    for (const std::string &part : {report.text, report.message}) {
        line += (part.empty() || part.front() == ' ' ? "" : " ") + part;
    }
    return line;
}

// An operation failed. what() says which one, and what the library reported while it ran.
class Failure : public std::runtime_error {
  public:
    explicit Failure(const std::string &failed, std::vector<Report> reports = {})
        : std::runtime_error(describe(failed, reports)), reports_(std::move(reports)) {}

    // In the order in which they came, the particular one first. None if the session itself refused
    // the operation.
    const std::vector<Report> &reports() const noexcept { return reports_; }

  private:
    static std::string describe(std::string failed, const std::vector<Report> &reports) {
        for (const Report &report : reports) {
            failed += "; " + to_string(report);
        }
        return failed;
    }

    std::vector<Report> reports_;
};

inline uint32_t read_u32(std::span<const uint8_t> bytes, size_t offset) {
    uint32_t number = 0;
    for (size_t i = 0; i < 4; ++i) {
        number |= uint32_t{bytes[offset + i]} << 8 * i;
    }
    return number;
}

// "vync.cfg" is a head of 16 bytes and a store. Of the head only the store's length is read.
inline constexpr size_t vync_head_size = 16;
inline constexpr size_t vync_length_offset = 8;

// "vync.cfg" around a store; the bytes of its head that nobody reads are zero.
inline Bytes make_vync_cfg(std::span<const uint8_t> store) {
    Bytes vync_cfg(vync_head_size);
    for (size_t i = 0; i < 4; ++i) {
        vync_cfg[vync_length_offset + i] = static_cast<uint8_t>(store.size() >> 8 * i);
    }
    vync_cfg.insert(vync_cfg.end(), store.begin(), store.end());
    return vync_cfg;
}

// The store in a "vync.cfg". Throws Failure where start-up would refuse it: shorter than its head,
// or than its head says.
inline std::span<const uint8_t> store_of_vync_cfg(std::span<const uint8_t> vync_cfg) {
    if (vync_cfg.size() < vync_head_size) {
        throw Failure("vync.cfg is shorter than its head");
    }
    const size_t length = read_u32(vync_cfg, vync_length_offset);
    if (length > vync_cfg.size() - vync_head_size) {
        throw Failure("vync.cfg is shorter than its head says");
    }
    return vync_cfg.subspan(vync_head_size, length);
}

// The inputs of a start-up; an empty one is absent. orvel_cfg and ftbl are mandatory.
struct Set {
    Bytes orvel_cfg;
    Bytes vync_cfg; // with its head
    Bytes ftbl;
    Bytes qfs_image; // AFS
    Bytes efs_image; // EFS
    uint32_t sku = 0;
};

// A value. Writing through the span changes it, in the table of current values. The span is good
// until the next set of that name, the next save or the end of the session.
struct Nvar {
    std::span<uint8_t> value;
    uint32_t max_size; // in bytes
    bool writable;     // false: save leaves the file of that name in the flash as it is

    std::string_view text() const {
        return {reinterpret_cast<const char *>(value.data()), value.size()};
    }
};

// The library from start-up to release.
class Session {
  public:
    // Starts up. The session owns its set: the library changes the flash images in place, and a
    // host sees of it what save gives. Throws Failure if start-up fails or the file table has no
    // row for the SKU, and std::logic_error if the library is up already.
    explicit Session(Set set) : set_(std::move(set)) {
        if (active_ != nullptr || qoFcsIsInitialized()) {
            throw std::logic_error("the library is up already; it has one session at a time");
        }
        require_row(set_.ftbl, set_.sku);
        const _commonDolmInputs inputs = {range(set_.orvel_cfg),
                                          range(set_.vync_cfg),
                                          range(set_.qfs_image),
                                          range(set_.ftbl),
                                          set_.sku,
                                          range(set_.efs_image)};
        active_ = this;
        try {
            call("start-up", [&] { return qoQfsDolmInit(&inputs, on_report); });
        } catch (...) {
            release();
            throw;
        }
    }

    // Gives up what was not saved.
    ~Session() { release(); }
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    // Everything reported since the session began. A warning here is a file that the deployed VFS
    // lacks: save will fail over it unless its file carries a trailer.
    const std::vector<Report> &reports() const noexcept { return reports_; }

    // Whether values come from the flash and go there.
    bool deployed() const { return qoQfsIsVfsDeployed(); }

    // A path may leave out its leading "/home/".
    bool contains(const std::string &path, FcsFileName table = FCS_FILE_CURRENT_VALUES) const {
        return qoqfsCheckNvarExists(path.c_str(), table);
    }

    // The value of path in one of the three tables. Throws Failure if it has none.
    Nvar nvar(const std::string &path, FcsFileName table = FCS_FILE_CURRENT_VALUES) const {
        uint8_t *data = nullptr;
        uint32_t size = 0;
        Nvar nvar{};
        call("reading " + path, [&] {
            return qoQfsNvarGet(path.c_str(), &data, &size, table, &nvar.writable, &nvar.max_size);
        });
        nvar.value = {data, size};
        return nvar;
    }

    // Gives path another value. Throws Failure if there is no such name or the value is over its
    // limit, which would else make the whole of save fail; the value then stays as it was.
    void set(const std::string &path, std::span<const uint8_t> value) {
        const size_t limit = std::min(size_t{nvar(path).max_size}, max_value_size);
        if (value.size() > limit) {
            throw Failure("changing " + path + ": " + std::to_string(value.size()) +
                          " bytes, and its limit is " + std::to_string(limit));
        }
        const Bytes copy(value.begin(), value.end()); // it may be a span of this very value
        uint8_t *data = nullptr;
        call("changing " + path, [&] {
            return qoQfsNvarResize(path.c_str(), &data, static_cast<uint32_t>(copy.size()));
        });
        std::copy(copy.begin(), copy.end(), data);
    }

    void set(const std::string &path, std::string_view text) {
        set(path, {reinterpret_cast<const uint8_t *>(text.data()), text.size()});
    }

    // Writes the current values into the flash images and a new "vync.cfg", and gives the set, good
    // until the next save or the end of the session. Throws Failure if that fails; the session is
    // then over, and so are its values.
    const Set &save() {
        uint8_t *store = nullptr;
        uint32_t size = 0;
        call("saving",
             [&] { return qoQfsNvarTerm(true) && qoQfsGetBuildVynCfgFcsBuffer(&store, &size); });
        set_.vync_cfg = make_vync_cfg({store, size});
        return set_;
    }

  private:
    // A record and its value share a length of 16 bits.
    static constexpr size_t max_value_size = 65'523;

    // Without a row the library would start up on empty tables, and save would leave no value in
    // the store. A file table that is none is the library's to report.
    static void require_row(std::span<const uint8_t> ftbl, uint32_t sku) {
        constexpr size_t min_size = 1024, row_size = 16, max_rows = 10;
        constexpr std::string_view magic = "FTBL";
        if (ftbl.size() < min_size || !std::equal(magic.begin(), magic.end(), ftbl.begin())) {
            return;
        }
        const size_t rows = std::min<size_t>(read_u32(ftbl, 12), max_rows);
        for (size_t row = 1; row <= rows; ++row) { // behind a head as long as a row
            if (read_u32(ftbl, row * row_size) == sku) {
                return;
            }
        }
        throw Failure("the file table has no row for SKU " + std::to_string(sku));
    }

    static _commonDolmTable range(Bytes &bytes) {
        if (bytes.size() > std::numeric_limits<uint32_t>::max()) {
            throw Failure("an input of 4 GiB or more");
        }
        return {bytes.empty() ? nullptr : bytes.data(), static_cast<uint32_t>(bytes.size())};
    }

    // The callback carries nothing of the host's, and the library keeps it after the session is
    // over; so it finds its session here, or none.
    static inline Session *active_ = nullptr;

    static void on_report(ErrorLevel level, ImageToolsErrorName number, const char *text,
                          const char *message) noexcept {
        try {
            if (active_ != nullptr) {
                active_->reports_.push_back({level, number, text, message});
            }
        } catch (...) {
            // Nothing may leave a callback; the result of the operation still says that it failed.
        }
    }

    template <typename Operation>
    void call(const std::string &what, Operation &&operation) const {
        const auto before = std::ssize(reports_);
        if (!operation()) {
            throw Failure(what + " failed", {reports_.begin() + before, reports_.end()});
        }
    }

    // A release writes once more, into images that nobody sees afterwards.
    void release() noexcept {
        active_ = nullptr;
        if (qoFcsIsInitialized()) {
            qoQfsNvarTerm(false);
        }
    }

    Set set_;
    std::vector<Report> reports_;
};

} // namespace dolmstorage

#endif
