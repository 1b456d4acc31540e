// Parcel: the kernel-binder parcel layout, little-endian, 4-byte aligned.
#include <binder/IBinder.h>
#include <binder/Parcel.h>

#include <bit>
#include <cstring>
#include <limits>

namespace android {
namespace {

static_assert(std::endian::native == std::endian::little,
              "parcels are written in the host's byte order, which must be little-endian");

constexpr size_t pad4(size_t n) { return (n + 3) & ~size_t{3}; }

// A parcel never holds more than this, as on a device.
constexpr size_t kParcelMax = std::numeric_limits<int32_t>::max();

constexpr int32_t kStrictModePolicy = static_cast<int32_t>(0x80000000u);
constexpr int32_t kUnsetWorkSource = -1;
constexpr int32_t kHeader = 0x53595354;  // 'SYST'

}  // namespace

status_t Parcel::setData(const uint8_t* buffer, size_t len) {
    if (len > kParcelMax || (buffer == nullptr && len > 0)) return BAD_VALUE;
    data_.assign(buffer, buffer + len);
    pos_ = 0;
    return OK;
}

void Parcel::freeData() {
    data_.clear();
    data_.shrink_to_fit();
    pos_ = 0;
}

uint8_t* Parcel::writeInplace(size_t len) {
    if (len > kParcelMax - 3 || pos_ + pad4(len) > kParcelMax) return nullptr;
    const size_t padded = pad4(len);
    const size_t end = pos_ + padded;
    if (end > data_.size()) data_.resize(end);
    uint8_t* p = data_.data() + pos_;
    if (padded > len) memset(p + len, 0, padded - len);
    pos_ = end;
    return p;
}

const uint8_t* Parcel::readInplace(size_t len) const {
    if (len > kParcelMax || pad4(len) > data_.size() - pos_) return nullptr;
    const uint8_t* p = data_.data() + pos_;
    pos_ += pad4(len);
    return p;
}

// Zero bytes, from any pointer, write and read nothing; writeInplace() and
// readInplace() could give no pointer for them in an empty parcel.
status_t Parcel::write(const void* data, size_t len) {
    if (data == nullptr && len > 0) return BAD_VALUE;
    if (len == 0) return OK;
    uint8_t* p = writeInplace(len);
    if (p == nullptr) return NO_MEMORY;
    memcpy(p, data, len);
    return OK;
}

status_t Parcel::read(void* outData, size_t len) const {
    if (len == 0) return OK;
    const uint8_t* p = readInplace(len);
    if (p == nullptr) return NOT_ENOUGH_DATA;
    memcpy(outData, p, len);
    return OK;
}

status_t Parcel::writeInt32(int32_t val) { return write(&val, sizeof(val)); }
status_t Parcel::writeUint32(uint32_t val) { return write(&val, sizeof(val)); }
status_t Parcel::writeInt64(int64_t val) { return write(&val, sizeof(val)); }
status_t Parcel::writeUint64(uint64_t val) { return write(&val, sizeof(val)); }

status_t Parcel::readInt32(int32_t* pArg) const { return read(pArg, sizeof(*pArg)); }
status_t Parcel::readUint32(uint32_t* pArg) const { return read(pArg, sizeof(*pArg)); }
status_t Parcel::readInt64(int64_t* pArg) const { return read(pArg, sizeof(*pArg)); }
status_t Parcel::readUint64(uint64_t* pArg) const { return read(pArg, sizeof(*pArg)); }

int32_t Parcel::readInt32() const {
    int32_t v = 0;
    return readInt32(&v) == OK ? v : 0;
}
uint32_t Parcel::readUint32() const {
    uint32_t v = 0;
    return readUint32(&v) == OK ? v : 0;
}
int64_t Parcel::readInt64() const {
    int64_t v = 0;
    return readInt64(&v) == OK ? v : 0;
}
uint64_t Parcel::readUint64() const {
    uint64_t v = 0;
    return readUint64(&v) == OK ? v : 0;
}

status_t Parcel::readBool(bool* pArg) const {
    int32_t v = 0;
    status_t err = readInt32(&v);
    if (err == OK) *pArg = v != 0;
    return err;
}

bool Parcel::readBool() const { return readInt32() != 0; }

status_t Parcel::writeString16(const char16_t* str, size_t len) {
    if (str == nullptr) return writeInt32(-1);
    if (len >= kParcelMax / sizeof(char16_t)) return BAD_VALUE;
    const size_t start = pos_;
    status_t err = writeInt32(static_cast<int32_t>(len));
    if (err != OK) return err;
    uint8_t* p = writeInplace((len + 1) * sizeof(char16_t));
    if (p == nullptr) {
        pos_ = start;
        return NO_MEMORY;
    }
    memcpy(p, str, len * sizeof(char16_t));
    memset(p + len * sizeof(char16_t), 0, sizeof(char16_t));
    return OK;
}

status_t Parcel::writeString16(const String16& str) {
    return writeString16(str.c_str(), str.size());
}

status_t Parcel::writeString16(const std::optional<String16>& str) {
    return str ? writeString16(*str) : writeInt32(-1);
}

status_t Parcel::readString16Raw(std::optional<String16>* out) const {
    const size_t start = pos_;
    int32_t len = 0;
    status_t err = readInt32(&len);
    if (err != OK) return err;
    if (len == -1) {
        out->reset();
        return OK;
    }
    if (len < -1) err = BAD_VALUE;
    const uint8_t* p =
        err == OK ? readInplace((static_cast<size_t>(len) + 1) * sizeof(char16_t)) : nullptr;
    if (err == OK && p == nullptr) err = NOT_ENOUGH_DATA;
    char16_t terminator = 1;
    if (p != nullptr) memcpy(&terminator, p + static_cast<size_t>(len) * sizeof(char16_t), 2);
    if (err == OK && terminator != 0) err = BAD_VALUE;
    if (err != OK) {
        pos_ = start;
        return err;
    }
    // The units may sit at any 4-aligned offset: copy them out rather than alias.
    std::u16string units(static_cast<size_t>(len), u'\0');
    memcpy(units.data(), p, units.size() * sizeof(char16_t));
    out->emplace(units.data(), units.size());
    return OK;
}

status_t Parcel::readString16(std::optional<String16>* pArg) const {
    std::optional<String16> s;
    status_t err = readString16Raw(&s);
    if (err == OK) *pArg = std::move(s);
    return err;
}

status_t Parcel::readString16(String16* pArg) const {
    const size_t start = pos_;
    std::optional<String16> s;
    status_t err = readString16Raw(&s);
    if (err != OK) return err;
    if (!s) {
        pos_ = start;
        return UNEXPECTED_NULL;
    }
    *pArg = std::move(*s);
    return OK;
}

String16 Parcel::readString16() const {
    String16 s;
    return readString16(&s) == OK ? s : String16();
}

status_t Parcel::writeInterfaceToken(const String16& descriptor) {
    const size_t start = pos_;
    status_t err = writeInt32(kStrictModePolicy);
    if (err == OK) err = writeInt32(kUnsetWorkSource);
    if (err == OK) err = writeInt32(kHeader);
    if (err == OK) err = writeString16(descriptor);
    if (err != OK) pos_ = start;
    return err;
}

bool Parcel::enforceInterface(const String16& descriptor) const {
    int32_t policy, workSource, header;
    if (readInt32(&policy) != OK || readInt32(&workSource) != OK || readInt32(&header) != OK ||
        header != kHeader) {
        return false;
    }
    String16 got;
    return readString16(&got) == OK && got == descriptor;
}

bool Parcel::checkInterface(IBinder* binder) const {
    return binder != nullptr && enforceInterface(binder->getInterfaceDescriptor());
}

}  // namespace android
