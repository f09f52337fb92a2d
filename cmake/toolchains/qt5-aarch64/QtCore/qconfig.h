// Qt 5 configuration for aarch64 targets built with the build machine's Qt 5
// headers (see Qt5Config.cmake beside this folder).
//
// Debian's Qt 5 headers are the same for every architecture except this
// file: the build machine's copy announces x86 SIMD support and relocation
// reduction, the aarch64 copy announces NEON instead. This file takes the
// build machine's copy and corrects exactly those entries, so the result
// matches the arm64 package's qconfig.h.
#ifndef PLCDRIVER_QT5_AARCH64_QCONFIG_H
#define PLCDRIVER_QT5_AARCH64_QCONFIG_H

#include_next <QtCore/qconfig.h>

#undef QT_COMPILER_SUPPORTS_SSE2
#undef QT_COMPILER_SUPPORTS_SSE3
#undef QT_COMPILER_SUPPORTS_SSSE3
#undef QT_COMPILER_SUPPORTS_SSE4_1
#undef QT_COMPILER_SUPPORTS_SSE4_2
#undef QT_COMPILER_SUPPORTS_AES
#undef QT_COMPILER_SUPPORTS_AVX
#undef QT_COMPILER_SUPPORTS_AVX2
#undef QT_COMPILER_SUPPORTS_AVX512F
#undef QT_COMPILER_SUPPORTS_AVX512BW
#undef QT_COMPILER_SUPPORTS_AVX512CD
#undef QT_COMPILER_SUPPORTS_AVX512DQ
#undef QT_COMPILER_SUPPORTS_AVX512ER
#undef QT_COMPILER_SUPPORTS_AVX512IFMA
#undef QT_COMPILER_SUPPORTS_AVX512PF
#undef QT_COMPILER_SUPPORTS_AVX512VBMI
#undef QT_COMPILER_SUPPORTS_AVX512VL
#undef QT_COMPILER_SUPPORTS_F16C
#undef QT_COMPILER_SUPPORTS_RDRND
#undef QT_COMPILER_SUPPORTS_RDSEED
#undef QT_COMPILER_SUPPORTS_SHA
#undef QT_COMPILER_SUPPORTS_SIMD_ALWAYS
#undef QT_REDUCE_RELOCATIONS

#ifndef QT_COMPILER_SUPPORTS_NEON
#define QT_COMPILER_SUPPORTS_NEON 1
#endif

#if !defined(__aarch64__)
#error "this Qt configuration is for aarch64 targets only"
#endif

#endif
