// Marks what the shared library exports; everything else is hidden.
#pragma once

#define QV_EXPORT __attribute__((visibility("default")))
