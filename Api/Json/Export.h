#pragma once

/// Marks what libTovik.so exports; everything else in it is hidden.
#define TOVIK_API __attribute__((visibility("default")))
