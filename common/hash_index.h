// Finds objects by a hash of what they are looked up by.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <string_view>
#include <utility>

namespace dolm {

inline size_t hash_of(std::string_view name) {
    return std::hash<std::string_view>{}(name);
}

// Holds pointers in a table with at least twice as many places. It is a short cut and may lack
// objects for want of memory, so its user can do without.
template <typename Object>
class hash_index {
  public:
    hash_index() = default;
    hash_index(hash_index &&other) noexcept { swap(other); }
    hash_index &operator=(hash_index &&other) noexcept {
        hash_index(std::move(other)).swap(*this);
        return *this;
    }
    ~hash_index() { std::free(places_); }

    size_t size() const { return size_; }

    // False without memory: the object is then missing.
    bool add(size_t hash, Object *object) {
        if (2 * (size_ + 1) > capacity_ && !grow()) {
            return false;
        }
        put(places_, capacity_, {hash, object});
        ++size_;
        return true;
    }

    // An object of that hash for which matches(object) holds; null if there is none.
    template <typename Matches>
    Object *find(size_t hash, Matches matches) const {
        if (capacity_ == 0) {
            return nullptr;
        }
        for (size_t i = hash & (capacity_ - 1); places_[i].object != nullptr;
             i = (i + 1) & (capacity_ - 1)) {
            if (places_[i].hash == hash && matches(*places_[i].object)) {
                return places_[i].object;
            }
        }
        return nullptr;
    }

  private:
    struct place {
        size_t hash;
        Object *object; // null in an empty place
    };

    static void put(place *places, size_t capacity, place what) {
        size_t i = what.hash & (capacity - 1);
        while (places[i].object != nullptr) {
            i = (i + 1) & (capacity - 1);
        }
        places[i] = what;
    }

    bool grow() {
        const size_t capacity = capacity_ == 0 ? 64 : 2 * capacity_; // a power of two
        auto *places = static_cast<place *>(std::calloc(capacity, sizeof(place)));
        if (places == nullptr) {
            return false;
        }
        for (size_t i = 0; i < capacity_; ++i) {
            if (places_[i].object != nullptr) {
                put(places, capacity, places_[i]);
            }
        }
        std::free(places_);
        places_ = places;
        capacity_ = capacity;
        return true;
    }

    void swap(hash_index &other) {
        std::swap(places_, other.places_);
        std::swap(capacity_, other.capacity_);
        std::swap(size_, other.size_);
    }

    place *places_ = nullptr;
    size_t capacity_ = 0;
    size_t size_ = 0;
};

} // namespace dolm
