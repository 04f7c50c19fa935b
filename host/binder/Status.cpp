// SPDX-License-Identifier: Apache-2.0
#include <binder/Status.h>

namespace android::binder {

// On the wire: the exception code and, unless it is EX_NONE, the message and the service-specific
// code. EX_TRANSACTION_FAILED never travels: it becomes the status of the transaction itself.

Status Status::ok() { return Status(); }

Status Status::fromExceptionCode(int32_t exceptionCode) { return Status(exceptionCode, OK); }

Status Status::fromExceptionCode(int32_t exceptionCode, const String8& message) {
    return Status(exceptionCode, OK, message);
}

Status Status::fromExceptionCode(int32_t exceptionCode, const char* message) {
    return fromExceptionCode(exceptionCode, String8(message));
}

Status Status::fromServiceSpecificError(int32_t errorCode) {
    return Status(EX_SERVICE_SPECIFIC, errorCode);
}

Status Status::fromServiceSpecificError(int32_t errorCode, const String8& message) {
    return Status(EX_SERVICE_SPECIFIC, errorCode, message);
}

Status Status::fromServiceSpecificError(int32_t errorCode, const char* message) {
    return fromServiceSpecificError(errorCode, String8(message));
}

Status Status::fromStatusT(status_t status) {
    Status result;
    result.setFromStatusT(status);
    return result;
}

std::string Status::exceptionToString(status_t exceptionCode) {
    switch (exceptionCode) {
#define EXCEPTION(name) \
    case name:          \
        return #name;
        EXCEPTION(EX_NONE)
        EXCEPTION(EX_SECURITY)
        EXCEPTION(EX_BAD_PARCELABLE)
        EXCEPTION(EX_ILLEGAL_ARGUMENT)
        EXCEPTION(EX_NULL_POINTER)
        EXCEPTION(EX_ILLEGAL_STATE)
        EXCEPTION(EX_NETWORK_MAIN_THREAD)
        EXCEPTION(EX_UNSUPPORTED_OPERATION)
        EXCEPTION(EX_SERVICE_SPECIFIC)
        EXCEPTION(EX_PARCELABLE)
        EXCEPTION(EX_TRANSACTION_FAILED)
#undef EXCEPTION
        default:
            return std::to_string(exceptionCode);
    }
}

Status::Status(int32_t exceptionCode, int32_t errorCode)
    : mException(exceptionCode), mErrorCode(errorCode) {}

Status::Status(int32_t exceptionCode, int32_t errorCode, const String8& message)
    : mException(exceptionCode), mErrorCode(errorCode), mMessage(message) {}

status_t Status::readFromParcel(const Parcel& parcel) {
    status_t status = parcel.readInt32(&mException);
    if (status == OK && mException != EX_NONE) {
        String16 message;
        status = parcel.readString16(&message);
        mMessage = String8(message);
        if (status == OK) status = parcel.readInt32(&mErrorCode);
    }
    if (status != OK) setFromStatusT(status);
    return status;
}

status_t Status::writeToParcel(Parcel* parcel) const {
    if (mException == EX_TRANSACTION_FAILED) return mErrorCode;
    status_t status = parcel->writeInt32(mException);
    if (status != OK || mException == EX_NONE) return status;
    status = parcel->writeString16(String16(mMessage));
    if (status != OK) return status;
    return parcel->writeInt32(mErrorCode);
}

void Status::setException(int32_t ex, const String8& message) { *this = Status(ex, OK, message); }

void Status::setServiceSpecificError(int32_t errorCode, const String8& message) {
    *this = Status(EX_SERVICE_SPECIFIC, errorCode, message);
}

void Status::setFromStatusT(status_t status) {
    *this = Status(status == OK ? EX_NONE : EX_TRANSACTION_FAILED, status);
}

String8 Status::toString8() const {
    if (isOk()) return String8("No error");
    String8 text;
    text.appendFormat("Status(%d, %s): '", mException, exceptionToString(mException).c_str());
    if (mException == EX_SERVICE_SPECIFIC || mException == EX_TRANSACTION_FAILED) {
        text.appendFormat("%d: ", mErrorCode);
    }
    return text + mMessage + "'";
}

std::stringstream& operator<<(std::stringstream& stream, const Status& s) {
    stream << s.toString8().string();
    return stream;
}

}  // namespace android::binder
