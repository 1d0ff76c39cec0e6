// A run of the library on a copy of the set.
#include <algorithm>

#include "EFS.h"
#include "dfs.h"
#include "host/check/set_view.h"
#include "host/errors.h"
#include "host/library.h"
#include "host/progress.h"
#include "host/tables.h"

namespace dolm {

namespace {

class Trial {
  public:
    Trial(const SetView &view, uint32_t sku, Findings &findings)
        : view_(view), sku_(sku), findings_(findings) {}

    void run() {
        SetFiles copy = view_.files;
        std::map<std::string, Bytes> values;
        {
            Library library(copy, sku_);
            if (findings_.has_errors()) {
                return; // it starts up in spite of them; more cannot be trusted
            }
            read_all_files();
            for (const std::string &name : library.names()) {
                values[name] = library.nvar(name).value;
            }
            copy.vync_cfg = with_vync_head(library.terminate());
        }
        check_result(copy, values);
    }

  private:
    void error(const char *file, std::string text, const std::string &nvar = {}) {
        findings_.error(
            {file, "", "with SKU " + std::to_string(sku_) + ": " + std::move(text), nvar});
    }

    // Every file through the library, held against what the image says by itself.
    void read_all_files() {
        Progress progress("reading files", view_.afs.files.size() + view_.efs.files.size());
        for (const AfsFile &file : view_.afs.files) {
            progress.step();
            if (file.kind != AfsFile::Kind::zombie) {
                compare(qfs_img, file.number, file.contents,
                        read_file(file.number, dfs_getsize, dfs_read));
            }
        }
        for (const EfsFile &file : view_.efs.files) {
            progress.step();
            if (file.kind == EfsFile::Kind::contents) {
                compare(efs_img, file.place.number, file.contents,
                        read_file(file.place.number, EFS_get_file_size, EFS_read));
            }
        }
    }

    // By a store's two operations, whose status of success is 0 in both.
    static std::optional<Bytes> read_file(uint32_t number, decltype(dfs_getsize) get_size,
                                          decltype(dfs_read) read) {
        uint32_t size = 0;
        if (get_size(number, &size) != DFS_OK) {
            return std::nullopt;
        }
        Bytes contents(size);
        if (size != 0 && read(number, 0, &size, contents.data()) != DFS_OK) {
            return std::nullopt;
        }
        contents.resize(size);
        return contents;
    }

    void compare(const char *image, uint32_t number, const std::vector<uint8_t> &on_image,
                 const std::optional<Bytes> &read) {
        const std::string file = "file " + std::to_string(number);
        if (!read) {
            error(image, file + " cannot be read");
        } else if (*read != on_image) {
            error(image, file + " reads as other bytes than lie on the image");
        }
    }

    // What a termination left has to start up with the same values, on sound images.
    void check_result(SetFiles &result, const std::map<std::string, Bytes> &values) {
        const std::string after = "after a trial termination ";
        if (!view_.files.qfs_image.empty()) {
            for (const std::string &rule : check_invariants(result.qfs_image)) {
                error(qfs_img, after + rule);
            }
        }
        if (view_.layout) {
            const EfsImage image = read_efs_image(result.efs_image, *view_.layout);
            const std::vector<std::string> before = efs_damages(view_.efs); // notes
            for (const std::string &rule : efs_damages(image)) {
                if (std::find(before.begin(), before.end(), rule) == before.end()) {
                    error(efs_img, after + rule);
                }
            }
        }
        const Library library(result, sku_);
        for (const auto &[name, value] : values) {
            if (library.value(name, FCS_FILE_CURRENT_VALUES) != value) {
                error("the set", after + "it has another value than before", name);
            }
        }
    }

    const SetView &view_;
    const uint32_t sku_;
    Findings &findings_;
};

} // namespace

void try_running(const SetView &view, uint32_t sku, Findings &findings) {
    if (view.files.orvel_cfg.empty() || view.files.ftbl.empty()) {
        return;
    }
    const auto follow = [&](const std::string &file, const std::string &text) {
        findings.follow(
            {ftbl_bin, orvel_cfg, vync_cfg, qfs_img, efs_img, "the set"},
            {file.empty() ? "the set" : file, "", "with SKU " + std::to_string(sku) + ": " + text});
    };
    try {
        Trial(view, sku, findings).run();
    } catch (const LibraryFailure &failure) {
        std::vector<Report> reports = failure.reports;
        std::erase_if(reports, [](const Report &report) { return !is_error(report); });
        follow(reports.empty() ? "" : reports.front().file, failure.what());
        for (const Report &report : reports) {
            follow(report.file, to_text(report));
        }
    } catch (const Failure &failure) {
        follow("", failure.what());
    }
}

} // namespace dolm
