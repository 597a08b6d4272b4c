// heap_counter.hpp - live and peak heap bytes of the whole process.
//
// The program that links heap_counter.cpp replaces malloc and its kin for
// every library in the process (OpenSSL, SQLite, libpkey), forwarding to
// glibc and counting usable bytes. Only the memory benchmark links it.
#pragma once

#include <cstddef>

namespace pkey::bench::heap {

std::size_t live_bytes() noexcept;
std::size_t peak_bytes() noexcept;
// Starts a new peak from the current live bytes.
void reset_peak() noexcept;

}  // namespace pkey::bench::heap
