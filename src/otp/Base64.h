// Base64 text, as the SMTP login exchange needs it.
//
// Source   RFC 4648 section 4: standard alphabet, "=" padding, no line breaks.
// Differs  Decode skips bytes outside the alphabet, so wrapped text is accepted, and drops an incomplete last group.
// Threads  No state: any thread may call any member.
// Memory   Works on the caller's buffers; allocates nothing.
#pragma once

class CBase64 {
 public:
  // Encodes `inLength` bytes of `in` as text in `out`, with a terminating NUL.
  //   in         inLength bytes; may be null when inLength is 0
  //   out        *outLength bytes; needs ((inLength + 2) / 3) * 4 + 1, the NUL counted
  //   outLength  in: capacity in bytes; out: characters written, NUL not counted
  // Returns 1, or 0 (and writes nothing) when a pointer is null or `out` is too small.
  static int Encode(const unsigned char* in, unsigned long inLength, unsigned char* out, unsigned long* outLength);

  // Decodes the `inLength` characters of `in` into bytes; `out` gets no terminating NUL.
  //   in         inLength characters; may be null when inLength is 0
  //   out        *outLength bytes; may be null when nothing is written
  //   outLength  in: capacity in bytes; out: bytes written
  // Every "=" lowers the bytes that a group gives, from 3 down to 1, for the rest of the input.
  // Returns 1, or 0 when a pointer is null or `out` is too small; *outLength is then unchanged and `out` may hold the
  // groups before the one that did not fit.  Never writes beyond *outLength bytes.
  static int Decode(const unsigned char* in, unsigned long inLength, unsigned char* out, unsigned long* outLength);
};
