// A VALUE in JSON: the content of an NVAR or of a file. docs/manifest.md tells its forms.
#pragma once

#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "Afs.h"
#include "host/content.h"
#include "host/json_object.h"

namespace dolm {

inline constexpr uint32_t max_content = AFS_MAX_FILE_SIZE; // EFS holds less

// True for the members of a VALUE that hold numbers: "u8", "i32", "u16be" and so on.
bool is_number_form(std::string_view key);

struct NumberForm;

// Reads values whose files lie in one folder, up to a number of bytes in all files together.
class ValueReader {
  public:
    ValueReader(std::filesystem::path folder, Problems &problems)
        : folder_(std::move(folder)), problems_(problems) {}

    // Nothing if it is no VALUE; the problems then have why. place is a JSON pointer to it.
    std::optional<Content> read(const nlohmann::json &json, const std::string &place);

  private:
    std::optional<Bytes> content_of(JsonObject &form);
    std::optional<Bytes> from_string(const std::string &place, std::string_view key,
                                     const nlohmann::json &json);
    std::optional<Bytes> from_file(const std::string &place, const std::string &name);
    std::optional<Bytes> from_numbers(const std::string &place, const NumberForm &form,
                                      const nlohmann::json &json);

    std::filesystem::path folder_;
    Problems &problems_;
    uint64_t room_ = uint64_t{64} << 20; // for the value files to come
};

} // namespace dolm
