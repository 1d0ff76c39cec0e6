#include "host/json_text.h"

#include <set>
#include <vector>

#include "host/errors.h"
#include "host/json_value.h"
#include "host/manifest.h"

namespace dolm {

using Json = nlohmann::json;

namespace {

// Reads a text without keeping it.
class FormCheck : public nlohmann::json_sax<Json> {
  public:
    explicit FormCheck(const std::string &source, size_t most_members)
        : source_(source), most_members_(most_members) {}

    bool null() override { return begin_item(); }
    bool boolean(bool) override { return begin_item(); }
    bool number_integer(int64_t) override { return begin_item(); }
    bool number_unsigned(uint64_t) override { return begin_item(); }
    bool number_float(double, const std::string &) override { return begin_item(); }
    bool binary(Json::binary_t &) override { return begin_item(); }
    bool string(std::string &text) override {
        if (text.size() > max_text) {
            refuse("a text of " + std::to_string(text.size()) + " bytes; at most " +
                   std::to_string(max_text) + " fit");
        }
        return begin_item();
    }
    bool start_object(size_t) override { return begin_container(false); }
    bool start_array(size_t) override { return begin_container(true); }
    bool end_object() override { return end_container(); }
    bool end_array() override { return end_container(); }

    bool key(std::string &key) override {
        Container &object = open_.back();
        object.key = key.substr(0, max_key);
        if (key.size() > max_key) {
            refuse("a name of " + std::to_string(key.size()) + " bytes; at most " +
                   std::to_string(max_key) + " fit");
        }
        const size_t most = open_.size() == 1 ? most_members_ : max_members;
        if (object.keys.size() == most) {
            refuse("at most " + std::to_string(most) + " members fit into an object");
        }
        if (!object.keys.insert(key).second) {
            refuse("the member '" + key + "' stands twice in an object");
        }
        return true;
    }

    bool parse_error(size_t, const std::string &,
                     const nlohmann::detail::exception &error) override {
        // "[json.exception.parse_error.101] parse error at line 1, column 2: ..."
        const std::string_view message = error.what();
        const size_t head = message.find("] ");
        constexpr size_t most_shown = 300; // it ends with the last thing read, however long
        throw Failure(source_ + ": " +
                      std::string(message.substr(head == message.npos ? 0 : head + 2, most_shown)));
    }

  private:
    static constexpr size_t max_depth = 64;
    static constexpr size_t max_members = 24; // of an inner object
    static constexpr size_t max_key = 256;
    static constexpr size_t max_text = size_t{1} << 20; // the longest content in hexadecimal

    struct Container {
        bool is_array;
        size_t count;    // items of an array so far
        std::string key; // the member of an object that is being read
        std::set<std::string> keys;
    };

    // How many items the innermost list may have, and what they are.
    struct ListKind {
        size_t most;
        const char *items;
    };
    ListKind kind_of_list() const {
        const std::string &key = open_.size() > 1 ? open_[open_.size() - 2].key : open_.back().key;
        if (open_.size() == 2 && key == "files") {
            return {max_files, "files"};
        }
        const bool is_in_efs = open_.front().key == "efs" && open_.size() <= 4;
        if (is_in_efs && key == "places") {
            return {max_files, "places"};
        }
        if (is_number_form(key)) {
            return {max_content, "numbers"};
        }
        return {ftbl::max_rows, key == "skus" ? "SKUs" : "items"};
    }

    // A member of an object has begun with its key.
    bool begin_item() {
        if (open_.empty() || !open_.back().is_array) {
            return true;
        }
        const ListKind kind = kind_of_list();
        if (++open_.back().count > kind.most) {
            open_.pop_back();
            refuse("at most " + std::to_string(kind.most) + " " + kind.items + " fit");
        }
        return true;
    }

    bool begin_container(bool is_array) {
        begin_item();
        if (open_.size() == max_depth) {
            refuse("nested more than " + std::to_string(max_depth) + " deep");
        }
        open_.push_back({is_array, 0, {}, {}});
        return true;
    }

    bool end_container() {
        open_.pop_back();
        return true;
    }

    [[noreturn]] void refuse(const std::string &why) const {
        std::string place;
        for (const Container &container : open_) {
            place += "/";
            place += container.is_array ? std::to_string(container.count - 1) : container.key;
        }
        throw Failure(source_ + ": " + (place.empty() ? "/" : place) + ": " + why);
    }

    const std::string &source_;
    const size_t most_members_;
    std::vector<Container> open_;
};

} // namespace

Json parse_json_text(std::string_view text, const std::string &source, size_t most_members) {
    FormCheck check(source, most_members);
    const bool with_comments = true;
    Json::sax_parse(text, &check, Json::input_format_t::json, true, with_comments);
    return Json::parse(text, nullptr, true, with_comments);
}

} // namespace dolm
