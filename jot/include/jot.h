/* jot: the system log client.
 *
 * A program opens a client, writes lines through it and closes it. Where lines go is decided at
 * each jot_open: when the environment variable JOT_LOG_FILE names a file, every line is appended
 * to it as one JSON record; otherwise (or when that file can't be opened) the text goes to the
 * debugger output, while a debugger is attached. A client that could not be made is NULL, and
 * every call accepts NULL for it: logging never fails its caller, and no call changes the
 * caller's last-error value.
 *
 * Threads: clients are independent, and one client may be used by several threads at once as
 * long as none of them closes it meanwhile. A message must not be changed while a line that
 * uses it is being written.
 *
 * See jot/README.md for the record format.
 */
#ifndef JOT_H
#define JOT_H

#include <stdarg.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(JOT_BUILDING_LIBRARY)
#define JOT_API __declspec(dllexport)
#else
#define JOT_API __declspec(dllimport)
#endif

/* The compiler checks each call's arguments against its format, as the Microsoft C runtime's
 * printf reads it: g++ and gcc name that archetype ms_printf (mingw's own __MINGW_PRINTF_FORMAT
 * names its C99 printf in C++ programs, which rejects %I64X); clang's printf knows the Microsoft
 * length modifiers on Windows targets. */
#if defined(__clang__)
#define JOT_PRINTF_FORMAT(format_index, first_argument) __attribute__((__format__(__printf__, format_index, first_argument)))
#else
#define JOT_PRINTF_FORMAT(format_index, first_argument) __attribute__((__format__(__ms_printf__, format_index, first_argument)))
#endif

/* Levels, from the most to the least severe. */
enum {
  JOT_LEVEL_EMERGENCY = 0,
  JOT_LEVEL_ALERT = 1,
  JOT_LEVEL_CRITICAL = 2,
  JOT_LEVEL_ERROR = 3,
  JOT_LEVEL_WARNING = 4,
  JOT_LEVEL_NOTICE = 5,
  JOT_LEVEL_INFO = 6,
  JOT_LEVEL_DEBUG = 7
};

/* Options of jot_open. */
enum {
  JOT_OPTION_STDERR = 1 /* also write each line's text and a newline to the standard error handle */
};

typedef struct jot_client jot_client;
typedef struct jot_message jot_message;

/* A client for one identity (the program or component that logs; NULL for none) and one
 * facility (the channel within it; NULL for none). Both texts are copied. JOT_LOG_FILE is read
 * at every call: a change of the variable takes effect at the next open. */
JOT_API jot_client *jot_open(const char *ident, const char *facility, unsigned options);

/* Formats one line from format and args (the Microsoft C runtime's printf conventions; a NULL
 * format gives an empty line) and writes it. message, which may be NULL, adds the key/value pairs
 * of a structured message to the record. A NULL client logs as one opened with no identity and
 * no facility would, reading JOT_LOG_FILE at the call. */
JOT_API void jot_vlog(jot_client *client, jot_message *message, int level, const char *format, va_list args)
  JOT_PRINTF_FORMAT(4, 0);
JOT_API void jot_log(jot_client *client, jot_message *message, int level, const char *format, ...)
  JOT_PRINTF_FORMAT(4, 5);

JOT_API void jot_close(jot_client *client);

/* Structured messages: a set of key/value texts, added to a record as its "fields" object, in
 * the order the keys were first set. Setting a key again replaces its value; a NULL value is
 * stored as the empty text, and a NULL key is ignored. Both texts are copied. */
JOT_API jot_message *jot_message_create(void);
JOT_API void jot_message_set(jot_message *message, const char *key, const char *value);
JOT_API void jot_message_release(jot_message *message);

#ifdef __cplusplus
}
#endif

#endif
