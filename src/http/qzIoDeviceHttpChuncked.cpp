#include <HttpTools/http/qzIoDeviceHttpChuncked.h>

#include <HttpTools/platform/qzLog.h>

#include <charconv>

namespace qz::http {

qzIoDeviceHttpChuncked::qzIoDeviceHttpChuncked(unsigned int maxChunkSize) : qzIoDeviceDelegable(2, 1025) {
  setMaxChunkSize(maxChunkSize);
}

qzIoDeviceHttpChuncked::~qzIoDeviceHttpChuncked() { qzIoDeviceHttpChuncked::clearDelegation(); }

void qzIoDeviceHttpChuncked::setMaxChunkSize(unsigned int size) {
  m_maxChunkSize = size;
  m_buffer.reserve(size);
}

bool qzIoDeviceHttpChuncked::beginDelegation(qz::qzIoDevice* target) {
  if (m_delegate) {
    m_error = true;
    return false;
  }
  clearDelegation();
  m_error = false;
  m_delegate = target;
  return true;
}

bool qzIoDeviceHttpChuncked::endDelegation() {
  bool ok = false;
  if (m_delegate && !m_error) {
    writeChunk(nullptr, 0);
    m_delegate->write("0\r\n\r\n", 5);
    ok = m_delegate->good();
  }
  clearDelegation();
  return ok;
}

void qzIoDeviceHttpChuncked::clearDelegation() {
  m_delegate = nullptr;
  m_buffer.clear();
}

bool qzIoDeviceHttpChuncked::hasError() const {
  if (m_error)
    return true;
  return m_delegate ? m_delegate->hasError() : false;
}

void qzIoDeviceHttpChuncked::writeChunk(const char* data, unsigned long length) {
  const uint64_t size = m_buffer.size() + length;
  if (size == 0)
    return;
  char line[24];
  char* end = std::to_chars(line, line + sizeof line - 2, size, 16).ptr;
  *end++ = '\r';
  *end++ = '\n';
  m_delegate->write(line, static_cast<unsigned long>(end - line));
  if (!m_buffer.empty())
    m_delegate->write(m_buffer.data(), m_buffer.size());
  if (length)
    m_delegate->write(data, length);
  m_delegate->write("\r\n", 2);
  m_buffer.clear();
}

int64_t qzIoDeviceHttpChuncked::writeBytes(const char* data, unsigned long length) {
  if (!m_delegate) {
    m_error = true;
    return 0;
  }
  unsigned long remaining = length;
  while (remaining > 0) {
    const int64_t room = int64_t(m_maxChunkSize) - int64_t(m_buffer.size());
    if (room > int64_t(remaining) || room == int64_t(remaining)) {
      // The rest fits; a chunk that is exactly full waits for the next write or the end.
      m_buffer.insert(m_buffer.end(), data, data + remaining);
      break;
    }
    if (room < 1) {
      writeChunk(nullptr, 0);
      continue;
    }
    writeChunk(data, static_cast<unsigned long>(room));
    data += room;
    remaining -= static_cast<unsigned long>(room);
  }
  return int64_t(length);
}

int64_t qzIoDeviceHttpChuncked::readBytes(char*, unsigned long) {
  qzLogObject(qzLog::Error, "http") << "qzIoDeviceHttpChuncked::readBytes not implemented";
  return 0;
}

bool qzIoDeviceHttpChuncked::seekg(int64_t) {
  qzLogObject(qzLog::Error, "http") << "qzIoDeviceHttpChuncked::seekg not implemented";
  return false;
}

bool qzIoDeviceHttpChuncked::seekp(int64_t) {
  qzLogObject(qzLog::Error, "http") << "qzIoDeviceHttpChuncked::seekp not implemented";
  return false;
}

int64_t qzIoDeviceHttpChuncked::tellg() {
  qzLogObject(qzLog::Error, "http") << "qzIoDeviceHttpChuncked::tellg not implemented";
  return 0;
}

int64_t qzIoDeviceHttpChuncked::tellp() {
  qzLogObject(qzLog::Error, "http") << "qzIoDeviceHttpChuncked::tellp not implemented";
  return 0;
}

bool qzIoDeviceHttpChuncked::atEnd() {
  qzLogObject(qzLog::Error, "http") << "qzIoDeviceHttpChuncked::atEnd not implemented";
  return false;
}

} // namespace qz::http
