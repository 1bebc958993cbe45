// Clang thread-safety attributes; empty under other compilers.
#pragma once

#if defined(__clang__)
#define NDMPC_TSA_(x) __attribute__((x))
#else
#define NDMPC_TSA_(x)
#endif

#define NDMPC_CAPABILITY(x) NDMPC_TSA_(capability(x))
#define NDMPC_SCOPED_CAPABILITY NDMPC_TSA_(scoped_lockable)
#define NDMPC_GUARDED_BY(x) NDMPC_TSA_(guarded_by(x))
#define NDMPC_PT_GUARDED_BY(x) NDMPC_TSA_(pt_guarded_by(x))
#define NDMPC_ACQUIRE(...) NDMPC_TSA_(acquire_capability(__VA_ARGS__))
#define NDMPC_RELEASE(...) NDMPC_TSA_(release_capability(__VA_ARGS__))
#define NDMPC_TRY_ACQUIRE(...) NDMPC_TSA_(try_acquire_capability(__VA_ARGS__))
#define NDMPC_REQUIRES(...) NDMPC_TSA_(requires_capability(__VA_ARGS__))
#define NDMPC_EXCLUDES(...) NDMPC_TSA_(locks_excluded(__VA_ARGS__))
#define NDMPC_NO_THREAD_SAFETY_ANALYSIS NDMPC_TSA_(no_thread_safety_analysis)
