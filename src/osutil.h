// Operating-system utilities of the plug-in: the installation probe, device
// name conversions, and the one sleep through which every wait of the
// command layer goes.
#ifndef QZVMFI_OSUTIL_H
#define QZVMFI_OSUTIL_H

#include <functional>
#include <string>

class CFiQzVMUtil {
 public:
  static bool isInstalled();
  static void removeDevPrefix(std::string& name);
  static std::string makeCompleteDevName(const std::string& name);
  static void removeSliceFromDisk(std::string& name);
  // Nothing to release on this platform; kept as a hook for platforms where
  // another volume manager may hold the disk.
  static int cleanupOtherLVMOnDisk(const std::string& disk);
};

void makeBlockToRawPath(const std::string& block, std::string& raw);

// raw must hold at least strlen(block) + 2 bytes. Kept here with the other
// free path conversions rather than in the support unit, so that the plug-in
// operations can use it without the command layer.
void convertBlockToRaw(const char* block, char* raw);

// Every pause of the command layer (disk look-up and rescan waits, busy
// retries) goes through qzvmSleep, so that tests can count pauses instead of
// waiting. setQzVMSleep installs a replacement and returns the previous one;
// an empty function restores the real sleep.
using QzVMSleepFunction = std::function<void(unsigned seconds)>;
QzVMSleepFunction setQzVMSleep(QzVMSleepFunction sleeper);
void qzvmSleep(unsigned seconds);

// Prefix put in front of the fixed kernel paths the plug-in writes to
// ("/sys/block/..."); empty in production, a scratch folder in tests so that
// they never touch the real /sys.
void setQzVMSysRoot(const std::string& root);
std::string qzvmSysPath(const std::string& path);

#endif  // QZVMFI_OSUTIL_H
