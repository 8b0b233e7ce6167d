// Little-endian integer fields for persisted byte layouts.
//
// Everything this system keeps on flash or reads from an image is a little-endian
// byte layout. Storing the bytes themselves (alignment 1) makes every record that is
// built from these fields packed by construction and exact on any host, big-endian
// included, without compiler-specific packing attributes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

template <typename T> struct le_field {
    static_assert(std::is_unsigned_v<T>, "persisted integers are unsigned fields");
    std::uint8_t bytes[sizeof(T)];

    constexpr T get() const {
        T v = 0;
        for (std::size_t i = 0; i < sizeof(T); ++i)
            v = static_cast<T>(v | static_cast<T>(static_cast<T>(bytes[i]) << (8 * i)));
        return v;
    }
    constexpr void set(T v) {
        for (std::size_t i = 0; i < sizeof(T); ++i)
            bytes[i] = static_cast<std::uint8_t>(v >> (8 * i));
    }
    constexpr operator T() const { return get(); }
    constexpr le_field &operator=(T v) {
        set(v);
        return *this;
    }
};

using le16 = le_field<std::uint16_t>;
using le32 = le_field<std::uint32_t>;

static_assert(sizeof(le16) == 2 && alignof(le16) == 1);
static_assert(sizeof(le32) == 4 && alignof(le32) == 1);
static_assert(std::is_trivially_copyable_v<le32> && std::is_standard_layout_v<le32>);
