// SPDX-License-Identifier: Apache-2.0

// Debian's libbacktrace needs the xz unpacker of 7z.so, which Debian installs for the build machine
// only. Its one use is to read compressed symbols (.gnu_debugdata). No binary that Debian or this
// build makes has them, so this 7z.so refuses such data, and the unwinder goes on without.

extern "C" {

void CrcGenerateTable() {}
void Crc64GenerateTable() {}
void XzUnpacker_Construct(void*, void*) {}
void XzUnpacker_Free(void*) {}

int XzUnpacker_Code(void*, ...) {
    constexpr int kUnsupported = 4;  // SZ_ERROR_UNSUPPORTED of 7-Zip's 7zTypes.h
    return kUnsupported;
}

int XzUnpacker_IsStreamWasFinished(const void*) { return false; }

}  // extern "C"
