// SPDX-License-Identifier: Apache-2.0
#include <binder/Status.h>

namespace android::binder {

// The words are those of API 34's libbinder (its Status.cpp): the exception code and, unless it is
// EX_NONE, the message and the size of a stack trace, which only Java writes. EX_TRANSACTION_FAILED
// never travels: it becomes the status of the transaction itself. Nobody here makes
// service-specific errors, which have a code of their own after that, or EX_PARCELABLE.

Status Status::ok() { return Status(); }

Status Status::fromExceptionCode(int32_t exceptionCode) { return Status(exceptionCode, OK); }

Status Status::fromExceptionCode(int32_t exceptionCode, const String8& message) {
    return Status(exceptionCode, OK, message);
}

Status Status::fromExceptionCode(int32_t exceptionCode, const char* message) {
    return fromExceptionCode(exceptionCode, String8(message));
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
    *this = Status();
    status_t status = parcel.readInt32(&mException);
    if (status == OK && mException != EX_NONE) {
        String16 message;
        status = parcel.readString16(&message);
        mMessage = String8(message);
        int32_t traceSize = 0;
        if (status == OK) status = parcel.readInt32(&traceSize);
        if (traceSize != 0) status = UNKNOWN_ERROR;
    }
    if (status != OK) setFromStatusT(status);
    return status;
}

status_t Status::writeToParcel(Parcel* parcel) const {
    if (mException == EX_TRANSACTION_FAILED) return mErrorCode;
    status_t status = parcel->writeInt32(mException);
    if (status != OK || mException == EX_NONE) return status;
    parcel->writeString16(String16(mMessage));
    return parcel->writeInt32(0);
}

void Status::setFromStatusT(status_t status) {
    *this = Status(status == OK ? EX_NONE : EX_TRANSACTION_FAILED, status);
}

String8 Status::toString8() const {
    if (isOk()) return String8("No error");
    String8 text;
    text.appendFormat("Status(%d, %s): '", mException, exceptionToString(mException).c_str());
    if (mException == EX_TRANSACTION_FAILED) text.appendFormat("%d: ", mErrorCode);
    return text + mMessage + "'";
}

std::stringstream& operator<<(std::stringstream& stream, const Status& s) {
    stream << s.toString8().string();
    return stream;
}

}  // namespace android::binder
