#pragma once

#include <HttpTools/platform/Export.h>
#include <HttpTools/platform/qzIoDevice.h>

#include <cstdint>
#include <vector>

namespace qz::http {

/// Write-only device that encodes what it is given in HTTP/1.1 chunked transfer encoding and
/// passes the encoded bytes to a delegate device. Every chunk but the last carries exactly the
/// maximum chunk size; nothing reaches the delegate before a chunk is full or the delegation ends.
///
/// @code
/// qz::qzIoDeviceMemory out;
/// qz::http::qzIoDeviceHttpChuncked chunked(64 * 1024);
/// chunked.beginDelegation(&out);
/// chunked.write("hello", 5);
/// chunked.endDelegation(); // out holds "5\r\nhello\r\n0\r\n\r\n"
/// @endcode
class HTTPTOOLS_API qzIoDeviceHttpChuncked : public qz::qzIoDeviceDelegable {
public:
  /// maxChunkSize must be positive.
  explicit qzIoDeviceHttpChuncked(unsigned int maxChunkSize);
  ~qzIoDeviceHttpChuncked() override; ///< drops the delegate without writing the terminator

  /// The size of a full chunk; change it only between delegations.
  ///@{
  void setMaxChunkSize(unsigned int size);
  unsigned int getMaxChunkSize() const { return m_maxChunkSize; }
  ///@}

  /// Starts encoding into `target` (not owned). Fails, and marks the error, while delegating.
  bool beginDelegation(qz::qzIoDevice* target) override;
  /// Emits the buffered bytes and the terminating zero-length chunk; returns the delegate's good().
  bool endDelegation() override;
  /// Forgets the delegate and the buffered bytes, writing nothing.
  void clearDelegation() override;

  /// True after a failed begin or write, or while the delegate reports an error.
  bool hasError() const override;
  int64_t writeBytes(const char* data, unsigned long length) override;
  /// Emits one chunk made of the buffered bytes followed by `length` bytes of `data`.
  void writeChunk(const char* data, unsigned long length);

  /// Write-only: these log an error and answer 0 or false.
  ///@{
  int64_t readBytes(char* data, unsigned long length) override;
  bool seekg(int64_t pos) override;
  bool seekp(int64_t pos) override;
  int64_t tellg() override;
  int64_t tellp() override;
  bool atEnd() override;
  ///@}

private:
  uint32_t m_maxChunkSize = 0;
  std::vector<char> m_buffer;
  qz::qzIoDevice* m_delegate = nullptr;
  bool m_error = false;
};

} // namespace qz::http
