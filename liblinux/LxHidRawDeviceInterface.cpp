#include "liblinux/LxHidRawDeviceInterface.h"

#include <cerrno>
#include <cstring>
#include <new>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "liblinux/HidReportDescriptorParser.h"
#include "liblinux/LxHidRawDeviceEnumerator.h"
#include "libposix/PxTrace.h"
#include "libtb/TbDebug.h"
#include "libtb/TbStringUtils.h"

LxHidRawDeviceInterface::LxHidRawDeviceInterface() : mFileDescriptor(-1), mHidReportDescriptorParser(nullptr)
{
    ResetMembers();
}

LxHidRawDeviceInterface::~LxHidRawDeviceInterface()
{
    CloseHidRawDevice();
}

void LxHidRawDeviceInterface::ResetMembers()
{
    std::memset(&mReportDescriptor, 0, sizeof(mReportDescriptor));
    mVID = 0;
    mPID = 0;
    mBcdDevice = 0;
    mInputReportByteLength = 0;
    mOutputReportByteLength = 0;
    std::memset(mSerialNumberStr, 0, sizeof(mSerialNumberStr));
}

TSTATUS LxHidRawDeviceInterface::OpenHidRawDevice(LxHidRawDeviceEnumerator& enumerator, unsigned deviceIndex)
{
    if (deviceIndex >= enumerator.DeviceCount()) {
        PXTRACE_ERROR("%s: invalid deviceIndex: %u deviceCount: %u\n", deviceIndex, enumerator.DeviceCount());
        return TSTATUS_INVALID_PARAMETER;
    }
    if (IsOpen()) {
        PXTRACE_ERROR("%s: already open\n");
        return TSTATUS_ALREADY_OPEN;
    }

    const char* path = enumerator.DevicePath(deviceIndex);
    PXTRACE_VERBOSE("%s: open: '%.1024s'\n", path);
    // Non-blocking: a read returns a queued report at once or fails with
    // EAGAIN; waiting is done with poll. Close-on-exec keeps the node out of
    // programs the application starts.
    mFileDescriptor = open(path, O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (mFileDescriptor < 0) {
        const int err = errno;
        mFileDescriptor = -1;
        if (err == EACCES) {
            PXTRACE_ERROR("%s: open failed (no permission)\n");
            return TSTATUS_NOT_ALLOWED;
        }
        PXTRACE_ERROR("%s: open failed (%d)\n", err);
        return TStatusFromErrno(err);
    }

    int size = 0;
    TSTATUS status = IoctlGetReportDescriptorSize(size);
    if (status != TSTATUS_SUCCESS) {
        PXTRACE_ERROR("%s:IoctlGetReportDescriptorSize failed, err = 0x%08X\n", static_cast<unsigned>(status));
        CloseHidRawDevice();
        return status;
    }
    PXTRACE_VERBOSE("%s: HID report descriptor size: %d\n", size);
    // The size comes from the device; the descriptor must fit the kernel's
    // structure that receives it.
    if (size < 0 || size > HID_MAX_DESCRIPTOR_SIZE) {
        PXTRACE_ERROR("%s: invalid HID report descriptor size: %lld (max. %d)\n", static_cast<long long>(size),
                      HID_MAX_DESCRIPTOR_SIZE);
        CloseHidRawDevice();
        return TSTATUS_INVALID_DESCRIPTOR;
    }

    status = IoctlGetReportDescriptor(mReportDescriptor, size);
    if (status != TSTATUS_SUCCESS) {
        PXTRACE_ERROR("%s:IoctlGetReportDescriptor failed, err = 0x%08X\n", static_cast<unsigned>(status));
        CloseHidRawDevice();
        return status;
    }
    // The kernel leaves size as we set it; anything else must not widen the
    // range the parser reads.
    if (mReportDescriptor.size > sizeof(mReportDescriptor.value)) {
        PXTRACE_ERROR("%s: invalid HID report descriptor size: %lld (max. %d)\n",
                      static_cast<long long>(mReportDescriptor.size), HID_MAX_DESCRIPTOR_SIZE);
        CloseHidRawDevice();
        return TSTATUS_INVALID_DESCRIPTOR;
    }
    if (PxTraceEnabled(KARVEX_TRACE_VERBOSE))
        DumpBytesEx(mReportDescriptor.value, mReportDescriptor.size, 16);

    mHidReportDescriptorParser =
        new (std::nothrow) HidReportDescriptorParser(mReportDescriptor.value, mReportDescriptor.size);
    if (mHidReportDescriptorParser == nullptr) {
        PXTRACE_ERROR("%s: allocate HidReportDescriptorParser failed\n");
        CloseHidRawDevice();
        return TSTATUS_NO_MEMORY;
    }
    if (!mHidReportDescriptorParser->Parse()) {
        PXTRACE_ERROR("%s: parse HID report descriptor failed\n");
        CloseHidRawDevice();
        return TSTATUS_FAILED;
    }

    mVID = enumerator.VID(deviceIndex);
    mPID = enumerator.PID(deviceIndex);
    mBcdDevice = enumerator.bcdDevice(deviceIndex);

    // Every report buffer carries the ID byte first, numbered or not.
    const T_UINT32 inputLength = mHidReportDescriptorParser->MaxInputReportByteLength();
    const T_UINT32 outputLength = mHidReportDescriptorParser->MaxOutputReportByteLength();
    mInputReportByteLength = inputLength != 0 ? inputLength + 1 : 0;
    mOutputReportByteLength = outputLength != 0 ? outputLength + 1 : 0;

    const char* serNumStr = enumerator.SerialNumberString(deviceIndex);
    TB_FATAL_ASSERT(NULL != serNumStr);
    if (serNumStr != nullptr) {
        const unsigned length = TbStringLen(serNumStr);
        if (length >= cSerialNumberStrSize) {
            PXTRACE_WARN("%s: Too large serial number '%.1024s' (%u bytes) ignored, max. %u bytes\n", serNumStr, length,
                         cSerialNumberStrSize);
        } else {
            std::memcpy(mSerialNumberStr, serNumStr, length + 1);
        }
    }
    return TSTATUS_SUCCESS;
}

void LxHidRawDeviceInterface::CloseHidRawDevice()
{
    if (IsOpen()) {
        PXTRACE_VERBOSE("%s: close hidraw file handle\n");
        close(mFileDescriptor);
        mFileDescriptor = -1;
    }
    if (mHidReportDescriptorParser != nullptr) {
        PXTRACE_VERBOSE("%s: free report descriptor parser (0x%p)\n", static_cast<void*>(mHidReportDescriptorParser));
        delete mHidReportDescriptorParser;
        mHidReportDescriptorParser = nullptr;
    }
    ResetMembers();
}

bool LxHidRawDeviceInterface::IsOpen() const
{
    return mFileDescriptor >= 0;
}

bool LxHidRawDeviceInterface::IsConnected()
{
    hidraw_devinfo info;
    return IoctlGetRawInfo(info) == TSTATUS_SUCCESS;
}

TSTATUS LxHidRawDeviceInterface::WriteReport(LxHidRawReportBuffer& buffer)
{
    if (!IsOpen()) {
        PXTRACE_ERROR("%s: not open\n");
        return TSTATUS_NOT_OPENED;
    }
    buffer.SetBytesTransferred(0);
    ssize_t n;
    do
        n = write(mFileDescriptor, buffer.Buffer(), buffer.BufferSize());
    while (n < 0 && errno == EINTR);
    if (n < 0) {
        const int err = errno;
        PXTRACE_ERROR("%s: write failed (%d)\n", err);
        return TStatusFromErrno(err);
    }
    buffer.SetBytesTransferred(static_cast<T_UINT32>(n));
    return TSTATUS_SUCCESS;
}

TSTATUS LxHidRawDeviceInterface::ReadReport(LxHidRawReportBuffer& buffer)
{
    if (!IsOpen()) {
        PXTRACE_ERROR("%s: not open\n");
        return TSTATUS_NOT_OPENED;
    }
    buffer.SetBytesTransferred(0);
    const bool numbered = IsNumberedInputReport();
    ssize_t n;
    do {
        if (numbered) {
            // The kernel puts the report ID into byte 0.
            n = read(mFileDescriptor, buffer.Buffer(), buffer.BufferSize());
        } else {
            buffer.SetReportId(0);
            n = read(mFileDescriptor, buffer.ReportData(), buffer.ReportDataSize());
        }
    } while (n < 0 && errno == EINTR);
    if (n < 0) {
        const int err = errno;
        if (err == EAGAIN)
            return TSTATUS_NO_DATA;
        PXTRACE_ERROR("%s: read failed (%d)\n", err);
        return TStatusFromErrno(err);
    }
    buffer.SetBytesTransferred(static_cast<T_UINT32>(n) + (numbered ? 0 : 1));
    return TSTATUS_SUCCESS;
}

TSTATUS LxHidRawDeviceInterface::ReadReportSync(LxHidRawReportBuffer& buffer, int timeout)
{
    if (!IsOpen()) {
        PXTRACE_ERROR("%s: not open\n");
        return TSTATUS_NOT_OPENED;
    }
    pollfd pfd;
    pfd.fd = mFileDescriptor;
    pfd.events = POLLIN | POLLERR;
    pfd.revents = 0;
    const int rc = poll(&pfd, 1, timeout);
    if (rc < 0) {
        const int err = errno;
        PXTRACE_ERROR("%s: poll failed (%d)\n", err);
        return TStatusFromErrno(err);
    }
    if (rc == 0) {
        PXTRACE_INFO("%s: timeout after %u ms\n", static_cast<unsigned>(timeout));
        return TSTATUS_TIMEOUT;
    }
    if (pfd.revents & POLLERR) {
        // An unplugged device shows itself this way.
        PXTRACE_ERROR("%s: POLLERR event\n");
        return TSTATUS_LINUX_EIO;
    }
    return ReadReport(buffer);
}

T_UINT32 LxHidRawDeviceInterface::InputReportByteLength()
{
    return mInputReportByteLength;
}

T_UINT32 LxHidRawDeviceInterface::OutputReportByteLength()
{
    return mOutputReportByteLength;
}

T_UINT16 LxHidRawDeviceInterface::UsbVid()
{
    return mVID;
}

T_UINT16 LxHidRawDeviceInterface::UsbPid()
{
    return mPID;
}

T_UINT16 LxHidRawDeviceInterface::UsbRevision()
{
    return mBcdDevice;
}

TSTATUS LxHidRawDeviceInterface::GetSerialNumberString(char* stringBuffer, unsigned stringBufferSize)
{
    if (stringBuffer == nullptr) {
        PXTRACE_ERROR("%s: stringBuffer is NULL\n");
        return TSTATUS_INVALID_PARAMETER;
    }
    const unsigned length = TbStringLen(mSerialNumberStr);
    if (length == 0)
        return TSTATUS_NOT_SUPPORTED;
    if (stringBufferSize < length + 1) {
        PXTRACE_ERROR("%s: stringBuffer too small, min. %u bytes, got %u bytes\n", length + 1, stringBufferSize);
        return TSTATUS_BUFFER_TOO_SMALL;
    }
    std::memcpy(stringBuffer, mSerialNumberStr, length + 1);
    return TSTATUS_SUCCESS;
}

int LxHidRawDeviceInterface::GetFileDescriptor() const
{
    return mFileDescriptor;
}

bool LxHidRawDeviceInterface::IsNumberedInputReport()
{
    return mHidReportDescriptorParser != nullptr && mHidReportDescriptorParser->IsNumberedInputReport();
}

TSTATUS LxHidRawDeviceInterface::IoctlGetReportDescriptorSize(int& size)
{
    if (!IsOpen()) {
        PXTRACE_ERROR("%s: not open\n");
        return TSTATUS_NOT_OPENED;
    }
    size = 0;
    if (ioctl(mFileDescriptor, HIDIOCGRDESCSIZE, &size) < 0) {
        const int err = errno;
        PXTRACE_ERROR("%s: HIDIOCGRDESCSIZE failed (%d)\n", err);
        return TStatusFromErrno(err);
    }
    return TSTATUS_SUCCESS;
}

TSTATUS LxHidRawDeviceInterface::IoctlGetReportDescriptor(hidraw_report_descriptor& descriptor, int size)
{
    if (!IsOpen()) {
        PXTRACE_ERROR("%s: not open\n");
        return TSTATUS_NOT_OPENED;
    }
    if (size < 0 || size > HID_MAX_DESCRIPTOR_SIZE) {
        PXTRACE_ERROR("%s: invalid size %d (max. %d)\n", size, HID_MAX_DESCRIPTOR_SIZE);
        return TSTATUS_INVALID_PARAMETER;
    }
    std::memset(&descriptor, 0, sizeof(descriptor));
    descriptor.size = static_cast<__u32>(size);
    if (ioctl(mFileDescriptor, HIDIOCGRDESC, &descriptor) < 0) {
        const int err = errno;
        PXTRACE_ERROR("%s: HIDIOCGRDESC failed (%d)\n", err);
        return TStatusFromErrno(err);
    }
    return TSTATUS_SUCCESS;
}

TSTATUS LxHidRawDeviceInterface::IoctlGetRawInfo(hidraw_devinfo& info)
{
    if (!IsOpen()) {
        PXTRACE_ERROR("%s: not open\n");
        return TSTATUS_NOT_OPENED;
    }
    std::memset(&info, 0, sizeof(info));
    if (ioctl(mFileDescriptor, HIDIOCGRAWINFO, &info) < 0) {
        const int err = errno;
        PXTRACE_ERROR("%s: HIDIOCGRAWINFO failed (%d)\n", err);
        return TStatusFromErrno(err);
    }
    return TSTATUS_SUCCESS;
}

namespace {

// The ioctl number has 14 bits for the buffer length; a longer buffer is
// offered at that length rather than turning into a different request.
unsigned IoctlLength(unsigned length)
{
    return length > _IOC_SIZEMASK ? _IOC_SIZEMASK : length;
}

} // namespace

TSTATUS LxHidRawDeviceInterface::IoctlGetRawName(char* buffer, unsigned length)
{
    if (!IsOpen()) {
        PXTRACE_ERROR("%s: not open\n");
        return TSTATUS_NOT_OPENED;
    }
    if (buffer == nullptr) {
        PXTRACE_ERROR("%s: buffer is NULL\n");
        return TSTATUS_INVALID_PARAMETER;
    }
    std::memset(buffer, 0, length);
    if (ioctl(mFileDescriptor, HIDIOCGRAWNAME(IoctlLength(length)), buffer) < 0) {
        const int err = errno;
        PXTRACE_ERROR("%s: HIDIOCGRAWNAME(%u) failed (%d)\n", length, err);
        return TStatusFromErrno(err);
    }
    return TSTATUS_SUCCESS;
}

TSTATUS LxHidRawDeviceInterface::IoctlGetPhysicalLocation(char* buffer, unsigned length)
{
    if (!IsOpen()) {
        PXTRACE_ERROR("%s: not open\n");
        return TSTATUS_NOT_OPENED;
    }
    if (buffer == nullptr) {
        PXTRACE_ERROR("%s: buffer is NULL\n");
        return TSTATUS_INVALID_PARAMETER;
    }
    std::memset(buffer, 0, length);
    if (ioctl(mFileDescriptor, HIDIOCGRAWPHYS(IoctlLength(length)), buffer) < 0) {
        const int err = errno;
        PXTRACE_ERROR("%s: HIDIOCGRAWPHYS(%u) failed (%d)\n", length, err);
        return TStatusFromErrno(err);
    }
    return TSTATUS_SUCCESS;
}
