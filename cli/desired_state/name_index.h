// NameIndex: names (views the caller keeps alive) to small numbers, in one
// open-addressed table. The desired-state reader finds duplicate service
// names with it and the plan matches the file's services with the agent's:
// thousands of names each, looked up once or twice, no allocation per name.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

class NameIndex {
public:
    // Room for `expected` names before the table first grows.
    explicit NameIndex(size_t expected = 0) { resize(capacity_for(expected)); }

    // Adds `name` with `value` and returns true, or returns false and leaves
    // the table as it is when `name` is there already (`*found` then holds
    // its value). May throw std::bad_alloc.
    bool add(std::string_view name, uint32_t value, uint32_t* found = nullptr) {
        if ((count_ + 1) * 4 > slots_.size() * 3) {
            grow();
        }
        Slot& slot = slot_for(name);
        if (slot.used()) {
            if (found != nullptr) {
                *found = slot.value;
            }
            return false;
        }
        // An empty name still needs a non-null pointer to count as used.
        slot = Slot{name.empty() ? "" : name.data(), static_cast<uint32_t>(name.size()), value};
        count_++;
        return true;
    }

    // The value of `name`, or null.
    const uint32_t* find(std::string_view name) const {
        const Slot& slot = const_cast<NameIndex*>(this)->slot_for(name);
        return slot.used() ? &slot.value : nullptr;
    }

private:
    // 16 bytes: names are shorter than 4 GiB, and a used slot has a text.
    struct Slot {
        const char* data = nullptr;
        uint32_t size = 0;
        uint32_t value = 0;

        bool used() const { return data != nullptr; }
        std::string_view name() const { return {data, size}; }
    };

    static size_t capacity_for(size_t expected) {
        // At most three quarters full: at half full the table touches twice
        // the pages for a probe or two less.
        size_t capacity = 16;
        while (capacity * 3 < expected * 4) {
            capacity *= 2;
        }
        return capacity;
    }

    static uint64_t load8(const char* at) {
        uint64_t word;
        memcpy(&word, at, 8);
        return word;
    }
    static uint32_t load4(const char* at) {
        uint32_t word;
        memcpy(&word, at, 4);
        return word;
    }

    // The last bytes of a name (up to eight) as one word, by loads of a
    // fixed size: a call to memcpy would cost more than the rest of hash().
    static uint64_t tail_word(const char* data, size_t size) {
        if (size >= 8) {
            return load8(data + size - 8);
        }
        if (size >= 4) {
            return load4(data) | uint64_t{load4(data + size - 4)} << 32;
        }
        if (size > 0) {
            return static_cast<uint8_t>(data[0]) | static_cast<uint8_t>(data[size / 2]) << 8 |
                   static_cast<uint8_t>(data[size - 1]) << 16;
        }
        return 0;
    }

    // Eight bytes a step: names are short, and only spread matters here.
    static uint64_t hash(std::string_view name) {
        uint64_t h = name.size() * 0x9e3779b97f4a7c15ull;
        for (size_t i = 0; i + 8 < name.size(); i += 8) {
            h = (h ^ load8(name.data() + i)) * 0xff51afd7ed558ccdull;
            h ^= h >> 32;
        }
        // The tail's last bytes sit in its high bits: fold them down before
        // the low bits are taken as the slot.
        h = (h ^ tail_word(name.data(), name.size())) * 0xff51afd7ed558ccdull;
        h = (h ^ (h >> 32)) * 0xc4ceb9fe1a85ec53ull;
        return h ^ (h >> 29);
    }

    // Whether a slot's name is `name`: the last word first, as names that
    // share a prefix differ there, and no call for short names.
    static bool same_name(const Slot& slot, std::string_view name) {
        const size_t size = name.size();
        if (slot.size != size || tail_word(slot.data, size) != tail_word(name.data(), size)) {
            return false;
        }
        return size <= 8 || memcmp(slot.data, name.data(), size - 8) == 0;
    }

    // The slot holding `name`, or the empty one where it would go.
    Slot& slot_for(std::string_view name) {
        const size_t mask = slots_.size() - 1;
        for (size_t i = hash(name) & mask;; i = (i + 1) & mask) {
            Slot& slot = slots_[i];
            if (!slot.used() || same_name(slot, name)) {
                return slot;
            }
        }
    }

    void resize(size_t capacity) { slots_.assign(capacity, Slot{}); }

    void grow() {
        std::vector<Slot> old = std::move(slots_);
        resize(old.size() * 2);
        for (const Slot& slot : old) {
            if (slot.used()) {
                slot_for(slot.name()) = slot;
            }
        }
    }

    std::vector<Slot> slots_;
    size_t count_ = 0;
};
