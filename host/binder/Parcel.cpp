// SPDX-License-Identifier: Apache-2.0
#include <binder/BpBinder.h>
#include <binder/IPCThreadState.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <binder/Stability.h>
#include <linux/android/binder.h>
#include <unistd.h>
#include <utils/Unicode.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace android {

// Parcel.h declares the kernel's structure within this namespace.
struct flat_binder_object : ::flat_binder_object {};

using internal::Stability;

// The words of a parcel are those that libbinder of API 34 writes (its Parcel.cpp), so that a
// client or a service from there understands this one. What the driver does to an object on its way
// is in the kernel's uapi/linux/android/binder.h.
namespace {

// A call starts with the caller's strict mode policy, the bit that asks for its violations to be
// gathered always set; the uid that the work is for; and a mark that tells the libbinder of the
// system from those of vendors and of the recovery, which may differ. Nothing here has a policy or
// works for others.
constexpr uint32_t kStrictModePolicy = 1u << 31;
constexpr int32_t kWorkSource = IPCThreadState::kUnsetWorkSource;
constexpr int32_t kHeader = B_PACK_CHARS('S', 'Y', 'S', 'T');

// The nice value that an object's calls are served with at least. A handle and null carry it too.
constexpr uint32_t kMinPriority = 19;
constexpr uint32_t kFileFlags = 0x7f | FLAT_BINDER_FLAG_ACCEPTS_FDS;

// Every item starts at a multiple of this many bytes.
constexpr size_t kAlignment = 4;

size_t padded(size_t len) { return (len + kAlignment - 1) & ~(kAlignment - 1); }

// Lengths travel as signed 32-bit numbers.
bool isLength(size_t len) { return len <= INT32_MAX; }

flat_binder_object objectAt(const uint8_t* data, binder_size_t offset) {
    flat_binder_object object;
    memcpy(&object, data + offset, sizeof(object));
    return object;
}

// A parcel that is being written holds what it refers to. Of a descriptor the cookie says whether
// to close it.
void release(const flat_binder_object& object, const void* id) {
    switch (object.hdr.type) {
        case BINDER_TYPE_BINDER:
            reinterpret_cast<BBinder*>(object.cookie)->decStrong(id);
            break;
        case BINDER_TYPE_HANDLE:
            ProcessState::self()
                ->getStrongProxyForHandle(static_cast<int32_t>(object.handle))
                ->decStrong(id);
            break;
        case BINDER_TYPE_FD:
            if (object.cookie) close(static_cast<int>(object.handle));
            break;
    }
}

// The templates of the header make room for as many elements as a parcel claims to hold. A claim
// that its data cannot bear out is refused before: no element takes less than one unit.
bool holdsVector(const Parcel& parcel) {
    const size_t start = parcel.dataPosition();
    int32_t count;
    const bool holds = parcel.readInt32(&count) == OK &&
                       (count < 0 || size_t(count) <= parcel.dataAvail() / kAlignment);
    parcel.setDataPosition(start);
    return holds;
}

}  // namespace

Parcel::Parcel() { initState(); }

Parcel::~Parcel() { freeData(); }

void Parcel::initState() {
    mError = OK;
    mData = nullptr;
    mDataSize = mDataCapacity = mDataPos = 0;
    mObjects = nullptr;
    mObjectsSize = mObjectsCapacity = 0;
    mOwner = nullptr;
    mOwnerCookie = nullptr;
}

void Parcel::freeData() {
    if (mOwner) {
        mOwner(this, mData, mDataSize, mObjects, mObjectsSize, mOwnerCookie);
    } else {
        releaseObjects();
        free(mData);
        free(mObjects);
    }
    initState();
}

void Parcel::releaseObjects() {
    for (size_t i = 0; i < mObjectsSize; ++i) release(objectAt(mData, mObjects[i]), this);
}

const uint8_t* Parcel::data() const { return mData; }

size_t Parcel::dataSize() const { return mDataSize; }

size_t Parcel::dataAvail() const { return mDataPos < mDataSize ? mDataSize - mDataPos : 0; }

size_t Parcel::dataPosition() const { return mDataPos; }

size_t Parcel::dataCapacity() const { return mDataCapacity; }

void Parcel::setDataPosition(size_t pos) const { mDataPos = pos; }

status_t Parcel::setDataSize(size_t size) {
    const status_t status = setDataCapacity(size);
    if (status != OK) return status;
    auto* kept = std::partition(mObjects, mObjects + mObjectsSize, [&](binder_size_t offset) {
        return offset + sizeof(flat_binder_object) <= size;
    });
    std::for_each(kept, mObjects + mObjectsSize,
                  [&](binder_size_t offset) { release(objectAt(mData, offset), this); });
    mObjectsSize = static_cast<size_t>(kept - mObjects);
    mDataSize = size;
    return OK;
}

// Never shrinks, and leaves nothing of the heap's past in what it adds: a parcel goes to other
// processes.
status_t Parcel::setDataCapacity(size_t size) {
    if (mOwner) return INVALID_OPERATION;
    if (size <= mDataCapacity) return OK;
    auto* grown = isLength(size) ? static_cast<uint8_t*>(realloc(mData, size)) : nullptr;
    if (!grown) return NO_MEMORY;
    memset(grown + mDataCapacity, 0, size - mDataCapacity);
    mData = grown;
    mDataCapacity = size;
    return OK;
}

status_t Parcel::growData(size_t len) {
    const size_t needed = mDataPos + len;
    if (!mOwner && needed <= mDataCapacity) return OK;
    return setDataCapacity(std::max(needed, mDataCapacity * 2));
}

status_t Parcel::errorCheck() const { return mError; }

void Parcel::setError(status_t err) { mError = err; }

// Between processes: the driver's own buffer is read in place, and handed back through `relFunc`.

uintptr_t Parcel::ipcData() const { return reinterpret_cast<uintptr_t>(mData); }

size_t Parcel::ipcDataSize() const { return mDataSize; }

uintptr_t Parcel::ipcObjects() const { return reinterpret_cast<uintptr_t>(mObjects); }

size_t Parcel::ipcObjectsCount() const { return mObjectsSize; }

void Parcel::ipcSetDataReference(const uint8_t* data, size_t dataSize, const binder_size_t* objects,
                                 size_t objectsCount, release_func relFunc, void* relCookie) {
    freeData();
    mData = const_cast<uint8_t*>(data);
    mDataSize = mDataCapacity = dataSize;
    mObjects = const_cast<binder_size_t*>(objects);
    mObjectsSize = mObjectsCapacity = objectsCount;
    mOwner = relFunc;
    mOwnerCookie = relCookie;
}

void Parcel::closeFileDescriptors() {
    for (size_t i = 0; i < mObjectsSize; ++i) {
        const flat_binder_object object = objectAt(mData, mObjects[i]);
        if (object.hdr.type == BINDER_TYPE_FD) close(static_cast<int>(object.handle));
    }
}

// The interface that a call is meant for.

status_t Parcel::writeInterfaceToken(const String16& interface) {
    writeUint32(kStrictModePolicy);
    writeInt32(kWorkSource);
    writeInt32(kHeader);
    return writeString16(interface);
}

bool Parcel::enforceInterface(const String16& interface, IPCThreadState*) const {
    uint32_t policy;
    int32_t workSource, header;
    String16 name;
    return readUint32(&policy) == OK && readInt32(&workSource) == OK && readInt32(&header) == OK &&
           header == kHeader && readString16(&name) == OK && name == interface;
}

bool Parcel::checkInterface(IBinder* binder) const {
    return enforceInterface(binder->getInterfaceDescriptor());
}

// Plain data.

status_t Parcel::finishWrite(size_t len) {
    mDataPos += len;
    mDataSize = std::max(mDataSize, mDataPos);
    return OK;
}

void* Parcel::writeInplace(size_t len) {
    if (!isLength(len) || growData(padded(len)) != OK) return nullptr;
    uint8_t* place = mData + mDataPos;
    if (len < padded(len)) memset(place + len, 0, padded(len) - len);
    finishWrite(padded(len));
    return place;
}

status_t Parcel::write(const void* data, size_t len) {
    void* place = writeInplace(len);
    if (!place) return mError = NO_MEMORY;
    if (len > 0) memcpy(place, data, len);
    return OK;
}

template <class T>
status_t Parcel::writeAligned(T val) {
    return write(&val, sizeof(val));
}

status_t Parcel::writePointer(uintptr_t val) { return writeAligned<binder_uintptr_t>(val); }

status_t Parcel::writeInt32(int32_t val) { return writeAligned(val); }

status_t Parcel::writeUint32(uint32_t val) { return writeAligned(val); }

status_t Parcel::writeInt64(int64_t val) { return writeAligned(val); }

status_t Parcel::writeUint64(uint64_t val) { return writeAligned(val); }

status_t Parcel::writeFloat(float val) { return writeAligned(val); }

status_t Parcel::writeDouble(double val) { return writeAligned(val); }

status_t Parcel::writeBool(bool val) { return writeInt32(val); }

status_t Parcel::writeChar(char16_t val) { return writeInt32(val); }

status_t Parcel::writeByte(int8_t val) { return writeInt32(val); }

const void* Parcel::readInplace(size_t len) const {
    if (!isLength(len) || padded(len) > dataAvail()) return nullptr;
    const uint8_t* place = mData + mDataPos;
    mDataPos += padded(len);
    return place;
}

status_t Parcel::read(void* outData, size_t len) const {
    const void* place = readInplace(len);
    if (!place) return NOT_ENOUGH_DATA;
    memcpy(outData, place, len);
    return OK;
}

template <class T>
status_t Parcel::readAligned(T* pArg) const {
    return read(pArg, sizeof(T));
}

template <class T>
T Parcel::readAligned() const {
    T result{};
    readAligned(&result);
    return result;
}

uintptr_t Parcel::readPointer() const { return readAligned<binder_uintptr_t>(); }

int32_t Parcel::readInt32() const { return readAligned<int32_t>(); }

status_t Parcel::readInt32(int32_t* pArg) const { return readAligned(pArg); }

uint32_t Parcel::readUint32() const { return readAligned<uint32_t>(); }

status_t Parcel::readUint32(uint32_t* pArg) const { return readAligned(pArg); }

int64_t Parcel::readInt64() const { return readAligned<int64_t>(); }

status_t Parcel::readInt64(int64_t* pArg) const { return readAligned(pArg); }

uint64_t Parcel::readUint64() const { return readAligned<uint64_t>(); }

status_t Parcel::readUint64(uint64_t* pArg) const { return readAligned(pArg); }

float Parcel::readFloat() const { return readAligned<float>(); }

status_t Parcel::readFloat(float* pArg) const { return readAligned(pArg); }

double Parcel::readDouble() const { return readAligned<double>(); }

status_t Parcel::readDouble(double* pArg) const { return readAligned(pArg); }

bool Parcel::readBool() const { return readInt32() != 0; }

status_t Parcel::readBool(bool* pArg) const {
    int32_t value = 0;
    const status_t status = readInt32(&value);
    *pArg = value != 0;
    return status;
}

char16_t Parcel::readChar() const { return static_cast<char16_t>(readInt32()); }

status_t Parcel::readChar(char16_t* pArg) const {
    int32_t value = 0;
    const status_t status = readInt32(&value);
    *pArg = static_cast<char16_t>(value);
    return status;
}

int8_t Parcel::readByte() const { return static_cast<int8_t>(readInt32()); }

status_t Parcel::readByte(int8_t* pArg) const {
    int32_t value = 0;
    const status_t status = readInt32(&value);
    *pArg = static_cast<int8_t>(value);
    return status;
}

// Strings: the length in UTF-16 units, -1 for none at all, then the units and a NUL.

status_t Parcel::writeString16(const String16& str) {
    return writeString16(str.string(), str.size());
}

status_t Parcel::writeString16(const char16_t* str, size_t len) {
    if (!str) return writeInt32(-1);
    if (!isLength(len)) return BAD_VALUE;
    const status_t status = writeInt32(static_cast<int32_t>(len));
    if (status != OK) return status;
    const size_t bytes = len * sizeof(char16_t);
    auto* place = static_cast<uint8_t*>(writeInplace(bytes + sizeof(char16_t)));
    if (!place) return mError = NO_MEMORY;
    memcpy(place, str, bytes);
    memset(place + bytes, 0, sizeof(char16_t));
    return OK;
}

String16 Parcel::readString16() const {
    String16 result;
    readString16(&result);
    return result;
}

status_t Parcel::readString16(String16* pArg) const {
    size_t len;
    const char16_t* str = readString16Inplace(&len);
    if (!str) return UNEXPECTED_NULL;
    return pArg->setTo(str, len);
}

const char16_t* Parcel::readString16Inplace(size_t* outLen) const {
    *outLen = 0;
    int32_t size;
    if (readInt32(&size) != OK || size < 0) return nullptr;
    const auto* str =
        static_cast<const char16_t*>(readInplace((size_t(size) + 1) * sizeof(char16_t)));
    // A sender may have put it at an odd place.
    if (!str || memcmp(str + size, u"", sizeof(char16_t)) != 0) return nullptr;
    *outLen = size_t(size);
    return str;
}

status_t Parcel::writeUtf8AsUtf16(const std::string& str) {
    const auto* utf8 = reinterpret_cast<const uint8_t*>(str.data());
    const ssize_t len = utf8_to_utf16_length(utf8, str.size());
    if (len < 0) return BAD_VALUE;
    std::u16string utf16(static_cast<size_t>(len), u'\0');
    utf8_to_utf16(utf8, str.size(), utf16.data(), utf16.size() + 1);
    return writeString16(utf16.data(), utf16.size());
}

status_t Parcel::readUtf8FromUtf16(std::string* str) const {
    size_t len;
    const char16_t* utf16 = readString16Inplace(&len);
    if (!utf16) return UNEXPECTED_NULL;
    str->clear();
    if (len == 0) return OK;
    const ssize_t utf8Len = utf16_to_utf8_length(utf16, len);
    if (utf8Len < 0) return BAD_VALUE;
    str->resize(static_cast<size_t>(utf8Len));
    utf16_to_utf8(utf16, len, str->data(), str->size() + 1);
    return OK;
}

// Vectors: the number of elements, then each as it is written by itself.

status_t Parcel::writeInt32Vector(const std::vector<int32_t>& val) {
    return writeTypedVector(val, &Parcel::writeInt32);
}

status_t Parcel::readInt32Vector(std::vector<int32_t>* val) const {
    return holdsVector(*this) ? readTypedVector(val, &Parcel::readInt32) : BAD_VALUE;
}

status_t Parcel::writeUtf8VectorAsUtf16Vector(const std::vector<std::string>& val) {
    return writeTypedVector(val, &Parcel::writeUtf8AsUtf16);
}

status_t Parcel::readUtf8VectorFromUtf16Vector(std::vector<std::string>* val) const {
    return holdsVector(*this) ? readTypedVector(val, &Parcel::readUtf8FromUtf16) : BAD_VALUE;
}

// Parcelables: whether there is one, then what it writes.

status_t Parcel::writeParcelable(const Parcelable& parcelable) {
    const status_t status = writeInt32(1);
    return status == OK ? parcelable.writeToParcel(this) : status;
}

status_t Parcel::readParcelable(Parcelable* parcelable) const {
    int32_t present;
    const status_t status = readInt32(&present);
    if (status != OK) return status;
    return present ? parcelable->readFromParcel(this) : UNEXPECTED_NULL;
}

// Binders and file descriptors: the driver translates them, so it is told where they are.

status_t Parcel::writeObject(const flat_binder_object& val, bool nullMetaData) {
    const size_t offset = mDataPos;
    const status_t status = write(&val, sizeof(val));
    // For a null binder there is nothing to translate.
    if (status != OK || (val.binder == 0 && !nullMetaData)) return status;

    if (mObjectsSize == mObjectsCapacity) {
        const size_t capacity = mObjectsCapacity * 2 + 4;
        void* grown = realloc(mObjects, capacity * sizeof(*mObjects));
        if (!grown) return mError = NO_MEMORY;
        mObjects = static_cast<binder_size_t*>(grown);
        mObjectsCapacity = capacity;
    }
    mObjects[mObjectsSize++] = offset;
    return OK;
}

const flat_binder_object* Parcel::readObject(bool nullMetaData) const {
    const size_t offset = mDataPos;
    const void* place = readInplace(sizeof(flat_binder_object));
    if (!place) return nullptr;
    const flat_binder_object object = objectAt(mData, offset);
    const bool translated =
        std::find(mObjects, mObjects + mObjectsSize, offset) != mObjects + mObjectsSize;
    const bool null =
        object.hdr.type == BINDER_TYPE_BINDER && object.binder == 0 && object.cookie == 0;
    // What looks like an object but was not translated is the sender's invention.
    if (!translated && (nullMetaData || !null)) return nullptr;
    return static_cast<const flat_binder_object*>(place);
}

// Behind each binder stands its stability: who may call it.

status_t Parcel::flattenBinder(const sp<IBinder>& binder) {
    flat_binder_object object{};
    object.hdr.type = BINDER_TYPE_BINDER;
    object.flags = kMinPriority;
    if (BBinder* local = binder != nullptr ? binder->localBinder() : nullptr) {
        object.flags |= FLAT_BINDER_FLAG_ACCEPTS_FDS;
        object.binder = reinterpret_cast<uintptr_t>(local->getWeakRefs());
        object.cookie = reinterpret_cast<uintptr_t>(local);
    } else if (binder != nullptr) {
        object.hdr.type = BINDER_TYPE_HANDLE;
        object.handle = static_cast<uint32_t>(binder->remoteBinder()->handle());
    }
    // The context manager's handle 0 is one to translate, too.
    const status_t status = writeObject(object, binder != nullptr);
    if (status != OK) return status;
    if (binder != nullptr) binder->incStrong(this);
    return writeInt32(Stability::get(binder.get()));
}

status_t Parcel::unflattenBinder(sp<IBinder>* out) const {
    const size_t offset = mDataPos;
    if (!readObject(false)) return BAD_TYPE;
    const flat_binder_object object = objectAt(mData, offset);
    sp<IBinder> binder;
    switch (object.hdr.type) {
        case BINDER_TYPE_BINDER:
            binder = reinterpret_cast<BBinder*>(object.cookie);
            break;
        case BINDER_TYPE_HANDLE:
            binder =
                ProcessState::self()->getStrongProxyForHandle(static_cast<int32_t>(object.handle));
            break;
        default:
            return BAD_TYPE;
    }
    int32_t stability;
    status_t status = readInt32(&stability);
    if (status == OK) status = Stability::set(binder.get(), stability, true);
    if (status == OK) *out = binder;
    return status;
}

status_t Parcel::writeStrongBinder(const sp<IBinder>& val) { return flattenBinder(val); }

sp<IBinder> Parcel::readStrongBinder() const {
    sp<IBinder> result;
    unflattenBinder(&result);
    return result;
}

status_t Parcel::readStrongBinder(sp<IBinder>* val) const {
    const status_t status = unflattenBinder(val);
    return status == OK && *val == nullptr ? UNEXPECTED_NULL : status;
}

status_t Parcel::readNullableStrongBinder(sp<IBinder>* val) const { return unflattenBinder(val); }

status_t Parcel::writeFileDescriptor(int fd, bool takeOwnership) {
    flat_binder_object object{};
    object.hdr.type = BINDER_TYPE_FD;
    object.flags = kFileFlags;
    object.handle = static_cast<uint32_t>(fd);
    object.cookie = takeOwnership;
    return writeObject(object, true);
}

int Parcel::readFileDescriptor() const {
    const size_t offset = mDataPos;
    if (!readObject(true)) return BAD_TYPE;
    const flat_binder_object object = objectAt(mData, offset);
    return object.hdr.type == BINDER_TYPE_FD ? static_cast<int>(object.handle) : BAD_TYPE;
}

}  // namespace android
