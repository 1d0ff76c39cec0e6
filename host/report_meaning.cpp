#include "host/report_meaning.h"

#include <charconv>
#include <optional>

#include "EFS.h"
#include "host/table_refusal.h"
#include "qoqfs.h"

namespace dolm {

namespace {

// The status of a lower layer that a report carries.
std::optional<int> status_in(const std::string &message) {
    constexpr std::string_view before = " Library status code: ";
    int status = 0;
    if (!message.starts_with(before)) {
        return std::nullopt;
    }
    std::from_chars(message.data() + before.size(), message.data() + message.size(), status);
    return status;
}

// What a status of the flash stores says.
std::string flash_status(int status) {
    switch (status) {
    case 2:
        return "there is no such file";
    case 5:
        return "its data is damaged";
    case 12:
        return "out of memory";
    case 22:
        return "the store has no such file number";
    case 27:
        return "the file is larger than the store allows";
    case 28:
        return "the store is full";
    default:
        return "the store does not work";
    }
}

void explain_refusal(Report &report, const char *file, const std::optional<Refusal> &refusal) {
    report.file = file;
    report.meaning = refusal ? refusal->text : "out of memory";
}

// The first of the two that is refused is the one that start-up did not get past.
void explain_store(Report &report, const SetFiles &set, uint32_t sku) {
    if (const auto refusal = why_orvel_refused(set.orvel_cfg, set.ftbl, sku)) {
        explain_refusal(report, "orvel.cfg", refusal);
    } else {
        explain_refusal(report, "vync.cfg", why_vync_refused(set.vync_cfg, set.ftbl, sku));
    }
}

void explain_efs(Report &report, const SetFiles &set) {
    const uint32_t needed = EFS_get_efs_size();
    report.file = "efs.img";
    report.meaning = set.efs_image.size() < needed
                         ? "it has " + std::to_string(set.efs_image.size()) +
                               " bytes, the geometry in ftbl.bin needs " + std::to_string(needed)
                         : "no block map of it is good, or ftbl.bin has another geometry";
}

// Number 342 stands for three failures, two of which leave the message empty.
void explain_qfs(Report &report, const SetFiles &set, uint32_t sku, bool mount_failed) {
    if (!report.message.empty()) {
        explain_refusal(report, "vync.cfg", why_vync_refused(set.vync_cfg, set.ftbl, sku));
    } else if (mount_failed) {
        report.file = "qfs.img";
        report.meaning = "it holds no AFS that can be mounted";
    } else {
        report.meaning = "a file in flash cannot be read into its NVAR; 'dolm check' tells which";
    }
}

} // namespace

void explain(std::vector<Report> &reports, const SetFiles &set, uint32_t sku) {
    bool mount_failed = false;
    for (Report &report : reports) {
        report.status = status_in(report.message);
        switch (report.number) {
        case IMAGE_TOOLS_INITIALIZE_ERROR:
            mount_failed = true;
            report.file = "qfs.img";
            report.meaning = flash_status(report.status.value_or(0));
            break;
        case IMAGE_TOOLS_QFS_INIT_FAILED:
            explain_qfs(report, set, sku, mount_failed);
            break;
        case IMAGE_TOOLS_EFS_INIT_FAILED:
            explain_efs(report, set);
            break;
        case IMAGE_TOOLS_FTBL_LOAD_FAILED:
            explain_refusal(report, "ftbl.bin", why_ftbl_refused(set.ftbl, sku));
            break;
        case IMAGE_TOOLS_FCS_CREATE_HANDLE_FAILED:
            explain_store(report, set, sku);
            break;
        case IMAGE_TOOLS_BUFFER_PARSING_ERROR:
            explain_refusal(report, "vync.cfg", why_vync_refused(set.vync_cfg, set.ftbl, sku));
            break;
        case IMAGE_TOOLS_ORVEL_CFG_LOAD_FAILED:
            explain_refusal(report, "orvel.cfg", Refusal{0, "it is empty"});
            break;
        case IMAGE_TOOLS_FILE_WRITE_ERROR:
            report.meaning =
                "a value cannot be written into flash: " + flash_status(report.status.value_or(0));
            break;
        case IMAGE_TOOLS_QFS_GET_SIZE_FAILED:
            report.meaning = "the file of an NVAR is not in flash; 'dolm check' tells which";
            break;
        default:
            break;
        }
    }
}

} // namespace dolm
