// SPDX-License-Identifier: MIT
// vorta: copying UTF-8 into fixed-size buffers, and UTF-8 to IBM code page 437.
#pragma once

/// Number of bytes that follow a UTF-8 lead byte: 0 for 0x00-0xBF (a
/// continuation byte standing first counts as a one-byte sequence), 1 for
/// 0xC0-0xDF, 2 for 0xE0-0xEF, 3 for 0xF0-0xF7, 4 for 0xF8-0xFB, 5 for 0xFC-0xFF.
extern const unsigned char trailingBytesForUTF8[256];

/// Copies whole UTF-8 sequences of src into dest: at most size - 1 bytes,
/// never a partial sequence, always terminated (dest is zero-filled first).
/// size <= 0 leaves dest untouched. A sequence cut short by the source's
/// terminator is not copied.
void strncpyasutf8(char* dest, const char* src, int size);

/// Sets *out to the code page 437 code (128-254) of the UTF-8 character in
/// the length bytes at seq and returns 1; otherwise sets *out to 0 and
/// returns 0. Only two- and three-byte sequences can match; the no-break
/// space (code 255) is deliberately not mapped.
int map_utf8_to_codepage437(const char* seq, int length, unsigned char* out);

/// As strncpyasutf8, but every character that code page 437 can show is
/// written as its one-byte code, each taking one byte of the size - 1 budget.
/// The loop does not stop at src's terminator: the NUL is copied like any
/// byte and copying goes on until the budget is spent, so src must have
/// readable bytes for as much as the budget consumes (a mapped character
/// takes two or three source bytes for one output byte, so up to three times
/// size - 1). Use the bounded overload for strings of unknown length.
void strncpyasutf8_map_cp437(char* dest, const char* src, int size);

/// As above, but reads no more than srcSize bytes of src: a sequence that
/// would run past srcSize ends the copy.
void strncpyasutf8_map_cp437(char* dest, const char* src, int srcSize, int size);
