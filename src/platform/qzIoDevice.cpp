#include <HttpTools/platform/qzIoDevice.h>

#include <algorithm>
#include <cstring>

namespace qz {

qzIoDevice::~qzIoDevice() = default;
int64_t qzIoDevice::readBytes(char*, unsigned long) { return 0; }
bool qzIoDevice::seekg(int64_t) { return false; }
bool qzIoDevice::seekp(int64_t) { return false; }
int64_t qzIoDevice::tellg() { return 0; }
int64_t qzIoDevice::tellp() { return 0; }
bool qzIoDevice::atEnd() { return false; }

qzIoDeviceDelegable::~qzIoDeviceDelegable() = default;

int64_t qzIoDeviceMemory::writeBytes(const char* data, unsigned long length) {
  if (m_error)
    return 0;
  m_data.append(data, length);
  return int64_t(length);
}

int64_t qzIoDeviceMemory::readBytes(char* data, unsigned long length) {
  size_t n = std::min<size_t>(length, m_data.size() - m_readPos);
  if (n)
    std::memcpy(data, m_data.data() + m_readPos, n);
  m_readPos += n;
  return int64_t(n);
}

} // namespace qz
