#pragma once

// Symbols are hidden by default; the public API is marked with HTTPTOOLS_API.
#define HTTPTOOLS_API __attribute__((visibility("default")))
