#pragma once

/// Marks a class or function that a library offers to its clients. Everything else is compiled
/// with hidden visibility.
#define QEV_EXPORT __attribute__((visibility("default")))
