// What each command of dolm does. A command that returns has succeeded; otherwise it throws Failure
// or UsageError (errors.h). Each tells its results as text or as JSON (output.h).
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace dolm {

// Seconds that a command waits for others that work on the same set.
inline constexpr double default_lock_timeout = 30;

struct BuildOptions {
    std::optional<std::filesystem::path> manifest; // the compiled-in one without it
    std::filesystem::path folder;
    bool replace = false; // the files of a set that lies there already
    double lock_timeout = default_lock_timeout;
};
void build_set(const BuildOptions &options);

struct SetOptions {
    std::filesystem::path folder;
    std::optional<uint32_t> sku;
    double lock_timeout = default_lock_timeout;
};

struct DiffOptions : SetOptions {
    std::filesystem::path other;
};
// True if the sets do not differ.
bool diff_sets(const DiffOptions &options);

struct ListOptions : SetOptions {
    bool changed_only = false;                    // those whose value differs from the base value
    std::optional<std::filesystem::path> against; // those whose value differs from this set's
    std::vector<std::string> names;               // or patterns; all without any
};
void list_nvars(const ListOptions &options);

enum class ValueForm { notation, text, hex, raw };

struct GetOptions : SetOptions {
    std::vector<std::string> names; // or patterns; at least one
    ValueForm form = ValueForm::notation;
    std::optional<std::filesystem::path> raw_file;
    std::string table = "current"; // or "base", "override"
};
void get_nvars(const GetOptions &options);

struct ChangeOptions : SetOptions {
    std::vector<std::string> words;            // names and values in turn
    std::optional<std::filesystem::path> from; // a file with more of them
    std::vector<std::string> unset;            // names that get their base value back
    bool dry_run = false;                      // only tells what would change and what it costs
    std::optional<std::filesystem::path> output;
    bool replace = false; // the files of a set that lies in the output already
};
void set_nvars(const ChangeOptions &options);

struct ExportOptions {
    std::filesystem::path folder;
    std::filesystem::path output;
    bool replace = false; // files that lie in the output already
    double lock_timeout = default_lock_timeout;
};
// Throws Failure if damage hides something; the rest has been written then.
void export_set(const ExportOptions &options);

struct ExtractOptions : SetOptions {
    std::vector<std::string> names;
    bool all = false;
    std::filesystem::path output; // a folder, or - for the content of one file
    bool with_trailer = false;
};
// Throws Failure if a file cannot be had; the others have been written then.
void extract_files(const ExtractOptions &options);

struct ImportOptions : SetOptions {
    std::vector<std::string> pairs; // NAME=FILE
    bool with_trailer = false;      // stands in the files
};
void import_files(const ImportOptions &options);

struct SalvageOptions : ExportOptions {};
// Throws Failure if not everything was found sound; what was found has been written then.
void salvage_set(const SalvageOptions &options);

struct ImageOptions {
    std::filesystem::path path;
    std::optional<std::filesystem::path> ftbl;
    std::optional<uint32_t> sku;
    double lock_timeout = default_lock_timeout;
};

struct HistoryOptions : ImageOptions {
    std::vector<std::string> names; // of files, or numbers; all without any
};
void show_history(const HistoryOptions &options);

// The path may be that of a set's folder.
struct InspectOptions : ImageOptions {
    std::optional<uint32_t> page; // at most one of these: show this alone
    std::optional<uint32_t> unit;
    std::optional<uint32_t> block;
};
// Throws Failure if a member breaks its format.
void inspect_member(const InspectOptions &options);

struct CheckOptions : SetOptions {
    bool strict = false; // notes fail too
    bool quiet = false;  // the counts alone
};
// Throws Failure if something is wrong with the set. Without a SKU all are checked.
void check_set(const CheckOptions &options);

struct ProveOptions : SetOptions {
    std::vector<std::string> words;              // names and values in turn
    unsigned depth = 2;                          // cuts behind each other: 1 or 2
    uint64_t states = 20000;                     // to visit, about
    bool all = false;                            // every state
    std::optional<std::string> replay;           // the one state to visit
    std::optional<std::filesystem::path> output; // for the set as that state has it
    bool replace = false;                        // the files of a set that lies there already
};

// Throws Failure if a cut of the power costs more than the change under way.
void prove_set(const ProveOptions &options);

struct ReportOptions : SetOptions {
    std::optional<std::filesystem::path> against; // another set, to compare the NVARs with
    std::filesystem::path output;                 // "-" for standard output
};
// Writes the page whatever is wrong with the set; without a SKU all are checked.
void report_set(const ReportOptions &options);

} // namespace dolm
