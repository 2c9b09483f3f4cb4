#pragma once

namespace qel::test {

#if !defined(__has_feature)
#define QEV_HAS_FEATURE(feature) 0
#else
#define QEV_HAS_FEATURE(feature) __has_feature(feature)
#endif

#if defined(__SANITIZE_THREAD__) || QEV_HAS_FEATURE(thread_sanitizer)
/// The build has a race detector.
inline constexpr bool kThreadSanitizer = true;
#else
inline constexpr bool kThreadSanitizer = false;
#endif

#if defined(__SANITIZE_ADDRESS__) || QEV_HAS_FEATURE(address_sanitizer) || \
    !defined(__OPTIMIZE__) || defined(QEV_SLOW_BUILD)
/// The build looks for other faults than many repetitions find, and takes its time.
inline constexpr bool kSlowBuild = true;
#else
inline constexpr bool kSlowBuild = kThreadSanitizer;
#endif

#undef QEV_HAS_FEATURE

}  // namespace qel::test
