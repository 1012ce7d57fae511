// One open hidraw device node: opens an enumerated device, learns its report
// lengths from the report descriptor, and moves single reports.
//
// No lock of its own: one thread may read while another writes (they share
// only the file descriptor); open, close and the connection check are
// serialised by the owner, which stops its reader before closing.
#pragma once

#include <linux/hidraw.h>

#include "liblinux/LxHidRawReportBuffer.h"
#include "libtb/TbTypes.h"

class HidReportDescriptorParser;
class LxHidRawDeviceEnumerator;

class LxHidRawDeviceInterface {
public:
    LxHidRawDeviceInterface();
    ~LxHidRawDeviceInterface();
    LxHidRawDeviceInterface(const LxHidRawDeviceInterface&) = delete;
    LxHidRawDeviceInterface& operator=(const LxHidRawDeviceInterface&) = delete;

    // Opens the device at deviceIndex of the enumeration. Any failure after the
    // node was opened closes it again: the object is then closed as before.
    TSTATUS OpenHidRawDevice(LxHidRawDeviceEnumerator& enumerator, unsigned deviceIndex);
    void CloseHidRawDevice();
    bool IsOpen() const;
    // The node still answers HIDIOCGRAWINFO (false once it was unplugged).
    bool IsConnected();

    // One output report, report ID byte first, the whole buffer.
    TSTATUS WriteReport(LxHidRawReportBuffer& buffer);
    // One input report without waiting; TSTATUS_NO_DATA when none is queued.
    // Byte 0 always holds the report ID (0 for unnumbered reports), and the
    // transferred count includes it.
    TSTATUS ReadReport(LxHidRawReportBuffer& buffer);
    // Waits up to timeout ms (negative: no limit) for an input report, then reads it.
    TSTATUS ReadReportSync(LxHidRawReportBuffer& buffer, int timeout);

    // Longest report including the report ID byte; 0 when there is none.
    T_UINT32 InputReportByteLength();
    T_UINT32 OutputReportByteLength();
    T_UINT16 UsbVid();
    T_UINT16 UsbPid();
    T_UINT16 UsbRevision();
    TSTATUS GetSerialNumberString(char* stringBuffer, unsigned stringBufferSize);
    int GetFileDescriptor() const;
    bool IsNumberedInputReport();

    TSTATUS IoctlGetReportDescriptorSize(int& size);
    // size must lie in 0..HID_MAX_DESCRIPTOR_SIZE.
    TSTATUS IoctlGetReportDescriptor(hidraw_report_descriptor& descriptor, int size);
    TSTATUS IoctlGetRawInfo(hidraw_devinfo& info);
    TSTATUS IoctlGetRawName(char* buffer, unsigned length);
    TSTATUS IoctlGetPhysicalLocation(char* buffer, unsigned length);

    static constexpr unsigned cSerialNumberStrSize = 128;

private:
    void ResetMembers();

    int mFileDescriptor;
    hidraw_report_descriptor mReportDescriptor;
    HidReportDescriptorParser* mHidReportDescriptorParser;
    T_UINT16 mVID;
    T_UINT16 mPID;
    T_UINT16 mBcdDevice;
    T_UINT32 mInputReportByteLength;
    T_UINT32 mOutputReportByteLength;
    char mSerialNumberStr[cSerialNumberStrSize];
};
