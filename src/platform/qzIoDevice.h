#pragma once

#include <HttpTools/platform/Export.h>

#include <cstdint>
#include <string>

namespace qz {

/// A byte device. Output devices implement writeBytes; the other operations are optional and
/// answer "not supported" (0 / false) unless a device overrides them.
class HTTPTOOLS_API qzIoDevice {
public:
  /// Directions a device supports; kept as given, not enforced.
  enum OpenMode { NotOpen = 0, ReadOnly = 1, WriteOnly = 2, ReadWrite = 3 };

  /// `openMode` and `flags` are kept for the device's users to read.
  explicit qzIoDevice(int openMode = WriteOnly, int flags = 0) : m_openMode(openMode), m_flags(flags) {}
  virtual ~qzIoDevice();
  qzIoDevice(const qzIoDevice&) = delete;
  qzIoDevice& operator=(const qzIoDevice&) = delete;

  /// Returns the number of bytes accepted.
  virtual int64_t writeBytes(const char* data, unsigned long length) = 0;
  /// writeBytes, for a buffer or a string.
  ///@{
  int64_t write(const char* data, unsigned long length) { return writeBytes(data, length); }
  int64_t write(const std::string& s) { return writeBytes(s.data(), s.size()); }
  ///@}

  /// Reading and positioning: the bytes read (at most `length`), whether the seek was done, the read and write
  /// positions, whether reading reached the end. By default 0 or false (not supported).
  ///@{
  virtual int64_t readBytes(char* data, unsigned long length);
  virtual bool seekg(int64_t pos);
  virtual bool seekp(int64_t pos);
  virtual int64_t tellg();
  virtual int64_t tellp();
  virtual bool atEnd();
  ///@}

  /// Whether a write failed; good() is its negation.
  ///@{
  virtual bool hasError() const { return false; }
  bool good() const { return !hasError(); }
  ///@}

  /// As given to the constructor.
  ///@{
  int openMode() const { return m_openMode; }
  int flags() const { return m_flags; }
  ///@}

private:
  int m_openMode;
  int m_flags;
};

/// A device that forwards what it is given to another device between beginDelegation and
/// endDelegation.
class HTTPTOOLS_API qzIoDeviceDelegable : public qzIoDevice {
public:
  using qzIoDevice::qzIoDevice;
  ~qzIoDeviceDelegable() override;
  /// Starts forwarding to `target` (not owned; it must outlive the delegation). False when it cannot.
  virtual bool beginDelegation(qzIoDevice* target) = 0;
  /// Finishes the forwarded output (flushes what is held back) and stops forwarding; false when a write failed.
  virtual bool endDelegation() = 0;
  /// Stops forwarding and drops what is held back, writing nothing.
  virtual void clearDelegation() = 0;
};

/// Appends everything written to a string it owns.
class HTTPTOOLS_API qzIoDeviceMemory : public qzIoDevice {
public:
  qzIoDeviceMemory() : qzIoDevice(ReadWrite) {}
  int64_t writeBytes(const char* data, unsigned long length) override;
  int64_t readBytes(char* data, unsigned long length)
      override; ///< reads from the start of data(), then on from where the last read stopped
  ///@{
  bool atEnd() override { return m_readPos >= m_data.size(); }
  int64_t tellp() override { return int64_t(m_data.size()); }
  int64_t tellg() override { return int64_t(m_readPos); }
  ///@}
  /// The error flag: tests set it to make the device fail.
  ///@{
  bool hasError() const override { return m_error; }
  void setError(bool e) { m_error = e; }
  ///@}
  /// Everything written so far.
  ///@{
  const std::string& data() const { return m_data; }
  std::string& data() { return m_data; }
  ///@}
  /// Empties the data and restarts reading.
  void clear() {
    m_data.clear();
    m_readPos = 0;
  }

private:
  std::string m_data;
  size_t m_readPos = 0;
  bool m_error = false;
};

/// Accepts and drops everything; counts the bytes.
class HTTPTOOLS_API qzIoDeviceNull : public qzIoDevice {
public:
  int64_t writeBytes(const char*, unsigned long length) override {
    m_count += length;
    return int64_t(length);
  }
  uint64_t count() const { return m_count; } ///< bytes written so far

private:
  uint64_t m_count = 0;
};

} // namespace qz
