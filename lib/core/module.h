// Shared pieces of the module-table convention.
//
// Every library module is one read-only table of operation pointers, named
// after the module (Logger, DynamicBuffer, Network, ...). Some tables keep a
// place for an operation that this program does not offer; that place holds
// `empty_slot`, which does nothing and is never called by the library.
#pragma once

#if defined(__GNUC__)
#define SYLV_PRINTF(fmt_index, first_arg) __attribute__((format(printf, fmt_index, first_arg)))
#else
#define SYLV_PRINTF(fmt_index, first_arg)
#endif

// Type of a table slot kept empty.
using EmptySlot = void (*)();

// The operation stored in empty slots: does nothing.
inline void empty_slot() {}
