#pragma once

/// Marks what libKelvo.so exports; everything else in it is hidden.
#define KELVO_API __attribute__((visibility("default")))
