#pragma once

#include <functional>

#include <QtGlobal>

/// Measures peak memory.
namespace PeakMemory {

/// Whether the figures are valid: a sanitizer's own memory would be included.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kIsMeasurable = false;
#else
constexpr bool kIsMeasurable = true;
#endif

/// The bytes by which @p work raises the peak resident memory of its own process; -1 if the work
/// returns false.
qint64 of(const std::function<bool()>& work);

} // namespace PeakMemory
