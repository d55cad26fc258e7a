#pragma once

#include <functional>

#include <QtGlobal>

/// What work needs at its peak.
namespace PeakMemory {

/// Whether the figures are those of the work. A sanitizer's own memory would be in them.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kIsMeasurable = false;
#else
constexpr bool kIsMeasurable = true;
#endif

/// By how many bytes @p work raises the most memory that a process of its own has ever had
/// resident; -1 where the work returns false.
qint64 of(const std::function<bool()>& work);

} // namespace PeakMemory
