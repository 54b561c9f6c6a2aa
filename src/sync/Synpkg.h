// Builds one synchronisation packet.
//
//   offset  size  field
//   0       1     code
//   1       2     length, most significant byte first; counts the whole packet
//   3       ...   attributes: type (1), length (1, counts these two bytes), value (length - 2)
//
// Source   The attribute layout of RFC 2865 section 5.
// Differs  No Identifier, no Authenticator, the length one byte earlier.
// Threads  An object belongs to one thread.
// Memory   Owns the buffer, which is wiped before it is freed: packets carry keys.
#pragma once

class CSynpkg {
 public:
  // Starts without a buffer.
  CSynpkg() = default;

  virtual ~CSynpkg();

  CSynpkg(const CSynpkg&) = delete;
  CSynpkg& operator=(const CSynpkg&) = delete;

  // Starts a packet without attributes; an earlier one is discarded.
  void initpkg(unsigned char code);

  // Appends an attribute.  Not before the first initpkg.
  //   value  len bytes; may be null when len is 0
  // An attribute that would make the packet longer than 32767 bytes is left out.
  void addattr(unsigned char type, unsigned char len, unsigned char* value);

  unsigned char* packet = nullptr;  // the complete packet, capacity + 1 bytes; null before the first initpkg
  int capacity = 0;                 // usable bytes of the buffer; grows as attributes come

 private:
  void grow(int used);
  void release();
};
