// UTF-8 sequences, for the writers that must not pass untrusted text on
// raw: the trace on standard error, metric labels, a monitor's status line.
#pragma once

#include <cstddef>
#include <cstdint>

// Length (1 to 4) of the well-formed UTF-8 sequence at the start of `bytes`
// (`available` of them, at least 1), with its code point in *code_point; 0
// when the first byte does not begin one (a stray continuation byte, an
// overlong form, a surrogate, a value above U+10FFFF or a cut sequence).
size_t utf8_sequence(const unsigned char* bytes, size_t available, uint32_t* code_point);

// Whether a terminal would act on this code point instead of showing it:
// the C0 controls, DEL, the C1 controls and the bidirectional embeddings,
// overrides and isolates (U+202A to U+202E, U+2066 to U+2069).
bool utf8_is_control(uint32_t code_point);
