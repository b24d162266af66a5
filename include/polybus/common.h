/*
 * Polybus: definitions shared by every public header.
 *
 * Device functions return 0 for success and a negative status for failure:
 *   POLYBUS_ERR_REFUSED (-1)  the family refused the call itself
 *   POLYBUS_ERR_SEND    (-2)  the request could not be written (device unknown, closed, USB error)
 *   POLYBUS_ERR_HEADER  (-3)  the answer's header did not arrive (most families report -4 instead)
 *   POLYBUS_ERR_ANSWER  (-4)  the answer was missing, malformed or reported failure
 * Families add their own codes from -5 downward; their headers list them.
 * USB_ and DEV_ functions return 1 (success) or 0 (failure) instead.
 */
#ifndef POLYBUS_COMMON_H
#define POLYBUS_COMMON_H

#include <stdbool.h>
#include <stdint.h>

#if defined(__GNUC__)
#define POLYBUS_API __attribute__((visibility("default")))
#else
#define POLYBUS_API
#endif

#ifdef __cplusplus
#define POLYBUS_BEGIN_DECLS extern "C" {
#define POLYBUS_END_DECLS }
#define POLYBUS_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#else
#define POLYBUS_BEGIN_DECLS
#define POLYBUS_END_DECLS
#if defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L
#define POLYBUS_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#elif defined(__GNUC__)
#define POLYBUS_STATIC_ASSERT(cond, msg) __extension__ _Static_assert(cond, msg)
#else
#define POLYBUS_STATIC_ASSERT(cond, msg)
#endif
#endif

#define POLYBUS_OK 0
#define POLYBUS_ERR_REFUSED (-1)
#define POLYBUS_ERR_SEND (-2)
#define POLYBUS_ERR_HEADER (-3)
#define POLYBUS_ERR_ANSWER (-4)

/* Per-device state is kept for this many adapters (positions in the device list). */
#define POLYBUS_MAX_DEVICES 30

#endif
