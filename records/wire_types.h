// SPDX-License-Identifier: MIT
// records/wire_types.h: integers as they lie on the wire and in files, and bounds-checked access to bytes.
//
// A record is a plain struct of bytes, char[n] and the integers below. All of them are little-endian byte
// arrays of alignment 1, so a record has no padding and may be copied from and to any address.
#pragma once

#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <type_traits>

namespace wire
{

static_assert(std::endian::native == std::endian::little, "records are copied as they lie in memory");

template <std::integral Int> class LittleEndian
{
public:
    LittleEndian() = default;
    LittleEndian(Int value) { std::memcpy(bytes_, &value, sizeof value); }
    operator Int() const
    {
        Int value;
        std::memcpy(&value, bytes_, sizeof value);
        return value;
    }

private:
    std::uint8_t bytes_[sizeof(Int)];
};

using U8 = std::uint8_t;
using U16 = LittleEndian<std::uint16_t>;
using U32 = LittleEndian<std::uint32_t>;
using I16 = LittleEndian<std::int16_t>;
using I32 = LittleEndian<std::int32_t>;
using I64 = LittleEndian<std::int64_t>;

using Bytes = std::span<const std::byte>;
using MutableBytes = std::span<std::byte>;

template <typename T>
concept Record = std::is_trivially_copyable_v<T> && alignof(T) == 1;

inline Bytes BytesAt(const void *data, std::size_t size)
{
    return {static_cast<const std::byte *>(data), size};
}

template <Record T> Bytes BytesOf(const T &record)
{
    return BytesAt(&record, sizeof record);
}

// A copy of the record that starts at `offset`, or nothing when not all of its bytes are there.
template <Record T> std::optional<T> Read(Bytes bytes, std::size_t offset = 0)
{
    if (offset > bytes.size() || bytes.size() - offset < sizeof(T))
        return std::nullopt;
    T record;
    std::memcpy(&record, bytes.data() + offset, sizeof record);
    return record;
}

// Reads a packet's tail field by field; once something is missing, Ok() stays false and all results are
// empty.
class Reader
{
public:
    explicit Reader(Bytes bytes) : bytes_(bytes) {}
    template <Record T> T Take()
    {
        T record{};
        const Bytes taken = TakeBytes(sizeof record);
        if (!taken.empty())
            std::memcpy(&record, taken.data(), sizeof record);
        return record;
    }
    Bytes TakeBytes(std::size_t count)
    {
        if (!ok_ || count > bytes_.size()) {
            ok_ = false;
            return {};
        }
        const Bytes taken = bytes_.first(count);
        bytes_ = bytes_.subspan(count);
        return taken;
    }
    Bytes Rest() const { return bytes_; }
    bool Ok() const { return ok_; }

private:
    Bytes bytes_;
    bool ok_ = true;
};

// Appends to a fixed buffer; what does not fit is not written at all and Ok() stays false from then on.
class Writer
{
public:
    explicit Writer(MutableBytes room) : room_(room) {}
    template <Record T> void Put(const T &record) { PutBytes(BytesOf(record)); }
    void PutBytes(Bytes bytes)
    {
        if (!ok_ || bytes.size() > room_.size() - used_) {
            ok_ = false;
            return;
        }
        if (!bytes.empty())
            std::memcpy(room_.data() + used_, bytes.data(), bytes.size());
        used_ += bytes.size();
    }
    Bytes Written() const { return room_.first(used_); }
    bool Ok() const { return ok_; }

private:
    MutableBytes room_;
    std::size_t used_ = 0;
    bool ok_ = true;
};

} // namespace wire
