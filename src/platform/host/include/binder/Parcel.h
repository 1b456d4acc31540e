// Host stand-in for the device's <binder/Parcel.h>.
//
// The bytes are those of a device's kernel-binder parcel: little-endian, every
// item padded to a multiple of 4 bytes.
//   int32           4 bytes
//   int64           8 bytes at the current position, no extra padding
//   String16        int32 length in UTF-16 units (-1 for null), the units, one
//                   zero unit, zero padding to a multiple of 4
//   interface token int32 0x80000000 (strict-mode policy), int32 -1 (unset
//                   work source), int32 0x53595354 ('SYST'), descriptor String16
//
// Writes go at the data position and move it on, growing the data as needed.
// Reads are const and move the position, which is mutable. A read that would
// pass the end returns NOT_ENOUGH_DATA and leaves the position where it was;
// the value-returning forms then give 0 (or an empty string).
#pragma once

#include <utils/Errors.h>
#include <utils/String16.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace android {

class IBinder;

class Parcel {
public:
    Parcel() = default;
    Parcel(const Parcel&) = delete;
    Parcel& operator=(const Parcel&) = delete;

    const uint8_t* data() const { return data_.data(); }
    size_t dataSize() const { return data_.size(); }
    size_t dataAvail() const { return data_.size() - pos_; }
    size_t dataPosition() const { return pos_; }
    size_t dataCapacity() const { return data_.capacity(); }
    // A position past the end is taken as the end.
    void setDataPosition(size_t pos) const { pos_ = pos < data_.size() ? pos : data_.size(); }
    // Replaces the contents with a copy of `buffer`; the position goes to 0.
    status_t setData(const uint8_t* buffer, size_t len);
    void freeData();

    status_t writeInterfaceToken(const String16& descriptor);
    // Reads an interface token: true when its header is 'SYST' and its
    // descriptor is `descriptor`. Any policy and work source are accepted.
    bool enforceInterface(const String16& descriptor) const;
    bool checkInterface(IBinder* binder) const;

    // Raw bytes, zero-padded to a multiple of 4.
    status_t write(const void* data, size_t len);
    status_t writeInt32(int32_t val);
    status_t writeUint32(uint32_t val);
    status_t writeInt64(int64_t val);
    status_t writeUint64(uint64_t val);
    status_t writeBool(bool val) { return writeInt32(val ? 1 : 0); }
    status_t writeString16(const String16& str);
    status_t writeString16(const std::optional<String16>& str);  // nullopt writes a null string
    status_t writeString16(const char16_t* str, size_t len);     // nullptr writes a null string

    status_t read(void* outData, size_t len) const;  // consumes len padded to 4
    status_t readInt32(int32_t* pArg) const;
    int32_t readInt32() const;
    status_t readUint32(uint32_t* pArg) const;
    uint32_t readUint32() const;
    status_t readInt64(int64_t* pArg) const;
    int64_t readInt64() const;
    status_t readUint64(uint64_t* pArg) const;
    uint64_t readUint64() const;
    status_t readBool(bool* pArg) const;
    bool readBool() const;
    // A null string gives UNEXPECTED_NULL; a length below -1 or a missing zero
    // unit gives BAD_VALUE. On any error the position is unchanged.
    status_t readString16(String16* pArg) const;
    status_t readString16(std::optional<String16>* pArg) const;  // null gives nullopt
    String16 readString16() const;                               // empty on any error

private:
    // Reserves `len` bytes padded to 4 at the position; null when too large.
    uint8_t* writeInplace(size_t len);
    // The `len` bytes (padded to 4) at the position, or null when they pass the end.
    const uint8_t* readInplace(size_t len) const;
    status_t readString16Raw(std::optional<String16>* out) const;

    std::vector<uint8_t> data_;
    mutable size_t pos_ = 0;
};

}  // namespace android
