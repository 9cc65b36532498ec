#pragma once

// Symbols are hidden by default; the public API is marked with HTTPTOOLS_API.
#define HTTPTOOLS_API __attribute__((visibility("default")))
// For the private state classes nested in exported classes, which would otherwise be exported
// with their enclosing class.
#define HTTPTOOLS_HIDDEN __attribute__((visibility("hidden")))
