/* jot: the system log client. See include/jot.h for the API and README.md for the record format.
 *
 * Design rules that shape this file:
 * - Logging never fails its caller: every failure (no memory, a file that can't be opened or
 *   written) drops output silently, and every entry point keeps the caller's last-error value.
 * - No global mutable state: a client is decided at jot_open and only read afterwards, so any
 *   number of threads may log at once, through one client or through many.
 * - A record reaches the log file in one WriteFile call, at the end of the file, while its writer
 *   holds the file's writer lock (see lock_log_file), so records from different threads and
 *   processes never interleave or overwrite each other.
 * - Small records are built in buffers on the stack, so that a process short of memory still
 *   gets its typical lines written.
 */
#include <jot.h>

#include <windows.h>

#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define JOT_ENVIRONMENT_VARIABLE L"JOT_LOG_FILE"

/* Readers, other writers and deletion of the log file are never blocked by a client. */
#define JOT_SHARE (FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE)

/* Sizes of the stack buffers: enough for the lines a library typically writes. */
enum { JOT_LOCAL_WIDE = 512, JOT_LOCAL_RECORD = 1024, JOT_LOCAL_PATH = MAX_PATH + 1 };

/* A client is one allocation: the structure, then the texts of its ident and facility. */
struct jot_client {
  HANDLE file; /* the log file, or INVALID_HANDLE_VALUE when lines go to the debugger output */
  char *ident; /* NULL for none */
  char *facility; /* NULL for none */
  unsigned options;
};

struct jot_pair {
  char *key;
  char *value;
};

struct jot_message {
  size_t count;
  size_t capacity;
  struct jot_pair *pairs; /* in the order the keys were first set */
};

/* ---- Growable byte buffers ------------------------------------------------------------------ */

/* A byte buffer that starts in its own local storage and moves to the heap when it outgrows it.
 * Once an allocation fails, the buffer is marked failed and ignores further appends, so callers
 * check only once, before using the contents. Not movable: data may point into local. */
typedef struct {
  char *data;
  size_t length;
  size_t capacity;
  int failed;
  char local[JOT_LOCAL_RECORD];
} jot_buffer;

static void buffer_init(jot_buffer *buffer) {
  buffer->data = buffer->local;
  buffer->length = 0;
  buffer->capacity = sizeof buffer->local;
  buffer->failed = 0;
}

static void buffer_free(jot_buffer *buffer) {
  if (buffer->data != buffer->local)
    free(buffer->data);
  buffer_init(buffer);
}

static int buffer_reserve(jot_buffer *buffer, size_t more) {
  size_t needed;
  size_t capacity;
  char *data;
  if (buffer->failed)
    return 0;
  if (more > (size_t)-1 - buffer->length) {
    buffer->failed = 1;
    return 0;
  }
  needed = buffer->length + more;
  if (needed <= buffer->capacity)
    return 1;
  capacity = buffer->capacity;
  while (capacity < needed)
    capacity = capacity > (size_t)-1 / 2 ? needed : capacity * 2;
  if (buffer->data == buffer->local) {
    data = malloc(capacity);
    if (data != NULL)
      memcpy(data, buffer->local, buffer->length);
  } else {
    data = realloc(buffer->data, capacity);
  }
  if (data == NULL) {
    buffer->failed = 1;
    return 0;
  }
  buffer->data = data;
  buffer->capacity = capacity;
  return 1;
}

static void buffer_append(jot_buffer *buffer, const char *bytes, size_t count) {
  if (count != 0 && buffer_reserve(buffer, count)) {
    memcpy(buffer->data + buffer->length, bytes, count);
    buffer->length += count;
  }
}

static void buffer_append_text(jot_buffer *buffer, const char *text) {
  buffer_append(buffer, text, strlen(text));
}

static void buffer_append_char(jot_buffer *buffer, char c) {
  buffer_append(buffer, &c, 1);
}

/* Decimal digits without going through printf: the record's numbers have one fixed form. */
static void buffer_append_unsigned(jot_buffer *buffer, unsigned long value, int width) {
  char digits[16];
  int count = 0;
  do {
    digits[sizeof digits - 1 - count++] = (char)('0' + value % 10);
    value /= 10;
  } while (value != 0);
  while (count < width && count < (int)sizeof digits)
    digits[sizeof digits - 1 - count++] = '0';
  buffer_append(buffer, digits + sizeof digits - count, (size_t)count);
}

static void buffer_append_signed(jot_buffer *buffer, int value) {
  if (value < 0) {
    buffer_append_char(buffer, '-');
    /* The negation goes through unsigned so that INT_MIN has a magnitude too. */
    buffer_append_unsigned(buffer, 0ul - (unsigned long)(long)value, 0);
  } else {
    buffer_append_unsigned(buffer, (unsigned long)value, 0);
  }
}

/* ---- Text conversion and JSON escaping ------------------------------------------------------ */

/* Appends code point c (at most U+10FFFF) as UTF-8. */
static void buffer_append_utf8(jot_buffer *buffer, unsigned long c) {
  char bytes[4];
  size_t count;
  if (c < 0x80) {
    bytes[0] = (char)c;
    count = 1;
  } else if (c < 0x800) {
    bytes[0] = (char)(0xC0 | (c >> 6));
    bytes[1] = (char)(0x80 | (c & 0x3F));
    count = 2;
  } else if (c < 0x10000) {
    bytes[0] = (char)(0xE0 | (c >> 12));
    bytes[1] = (char)(0x80 | ((c >> 6) & 0x3F));
    bytes[2] = (char)(0x80 | (c & 0x3F));
    count = 3;
  } else {
    bytes[0] = (char)(0xF0 | (c >> 18));
    bytes[1] = (char)(0x80 | ((c >> 12) & 0x3F));
    bytes[2] = (char)(0x80 | ((c >> 6) & 0x3F));
    bytes[3] = (char)(0x80 | (c & 0x3F));
    count = 4;
  }
  buffer_append(buffer, bytes, count);
}

/* Appends the UTF-16 text as the inside of a JSON string, encoded in UTF-8. Quote, backslash and
 * every control character are escaped, so a record stays on one line whatever its text holds. A
 * lone surrogate has no UTF-8 form and becomes U+FFFD. */
static void buffer_append_json_wide(jot_buffer *buffer, const WCHAR *text, size_t count) {
  static const char hex[] = "0123456789abcdef";
  size_t i;
  for (i = 0; i < count; ++i) {
    unsigned long c = text[i];
    switch (c) {
    case '"': buffer_append(buffer, "\\\"", 2); continue;
    case '\\': buffer_append(buffer, "\\\\", 2); continue;
    case '\b': buffer_append(buffer, "\\b", 2); continue;
    case '\f': buffer_append(buffer, "\\f", 2); continue;
    case '\n': buffer_append(buffer, "\\n", 2); continue;
    case '\r': buffer_append(buffer, "\\r", 2); continue;
    case '\t': buffer_append(buffer, "\\t", 2); continue;
    default: break;
    }
    if (c < 0x20) {
      char escape[6] = {'\\', 'u', '0', '0', hex[c >> 4], hex[c & 0xF]};
      buffer_append(buffer, escape, sizeof escape);
    } else if (c >= 0xD800 && c <= 0xDBFF && i + 1 < count && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF) {
      buffer_append_utf8(buffer, 0x10000 + ((c - 0xD800) << 10) + (text[i + 1] - 0xDC00ul));
      ++i;
    } else if (c >= 0xD800 && c <= 0xDFFF) {
      buffer_append_utf8(buffer, 0xFFFD);
    } else {
      buffer_append_utf8(buffer, c);
    }
  }
}

/* Appends the ANSI text as a JSON string (with its quotes), or null for NULL. The text is in
 * the ANSI code page, as everything a Windows program formats with the C runtime's printf is. */
static void buffer_append_json(jot_buffer *buffer, const char *text, size_t length) {
  WCHAR local[JOT_LOCAL_WIDE];
  WCHAR *wide = local;
  int count = 0;
  if (text == NULL) {
    buffer_append(buffer, "null", 4);
    return;
  }
  buffer_append_char(buffer, '"');
  if (length > 0 && length <= INT_MAX) {
    count = MultiByteToWideChar(CP_ACP, 0, text, (int)length, NULL, 0);
    if (count > JOT_LOCAL_WIDE) {
      wide = malloc((size_t)count * sizeof *wide);
      if (wide == NULL)
        buffer->failed = 1;
    }
    if (wide != NULL && count > 0)
      count = MultiByteToWideChar(CP_ACP, 0, text, (int)length, wide, count);
    if (wide != NULL && count > 0)
      buffer_append_json_wide(buffer, wide, (size_t)count);
    if (wide != local)
      free(wide);
  }
  buffer_append_char(buffer, '"');
}

static void buffer_append_json_text(jot_buffer *buffer, const char *text) {
  buffer_append_json(buffer, text, text == NULL ? 0 : strlen(text));
}

/* ---- Clients -------------------------------------------------------------------------------- */

static char *copy_text(const char *text) {
  size_t size = strlen(text) + 1;
  char *copy = malloc(size);
  if (copy != NULL)
    memcpy(copy, text, size);
  return copy;
}

/* The log file that JOT_LOG_FILE names now, opened for appending, or INVALID_HANDLE_VALUE when
 * the variable is unset or empty or the file can't be opened. The variable is read at every open
 * although the read is most of the cost of a line that goes nowhere: the environment block is
 * changed in place (its address and size stay the same when a value is replaced by one of the
 * same length), so no cheap look at it tells whether the variable changed; README.md has the
 * figures. Append access without
 * FILE_WRITE_DATA makes every write go to the current end of the file; read access is there only
 * because byte-range locks need read or write access (see lock_log_file). */
static HANDLE open_log_file(void) {
  WCHAR local[JOT_LOCAL_PATH];
  WCHAR *path = local;
  DWORD size = JOT_LOCAL_PATH;
  HANDLE file = INVALID_HANDLE_VALUE;
  for (;;) {
    DWORD length = GetEnvironmentVariableW(JOT_ENVIRONMENT_VARIABLE, path, size);
    if (length == 0)
      break;
    if (length < size) {
      file = CreateFileW(path, FILE_READ_DATA | FILE_APPEND_DATA, JOT_SHARE, NULL, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, NULL);
      /* A file its writers may append to but not read (a drop-box log) still takes records,
       * only without the writer lock. */
      if (file == INVALID_HANDLE_VALUE && GetLastError() == ERROR_ACCESS_DENIED)
        file = CreateFileW(path, FILE_APPEND_DATA, JOT_SHARE, NULL, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, NULL);
      break;
    }
    /* Too small: length is the size needed. Another thread may lengthen the variable before the
     * next read, hence the loop. */
    if (path != local)
      free(path);
    size = length;
    path = malloc((size_t)size * sizeof *path);
    if (path == NULL)
      break;
  }
  if (path != local)
    free(path);
  return file;
}

/* ---- Writing a line ------------------------------------------------------------------------- */

/* Formats with the Microsoft C runtime's conventions (%lu, %I64X, ...), which is what callers
 * on Windows write their formats for; the explicit _vscprintf/_vsnprintf pair keeps the mingw
 * C99 printf out of it. A format the runtime rejects is logged as it is rather than lost. */
static void format_text(jot_buffer *text, const char *format, va_list args) {
  va_list measure;
  int length;
  if (format == NULL)
    return;
  va_copy(measure, args);
  length = _vscprintf(format, measure);
  va_end(measure);
  if (length < 0) {
    buffer_append_text(text, format);
    return;
  }
  if (!buffer_reserve(text, (size_t)length + 1))
    return;
  if (_vsnprintf(text->data, (size_t)length + 1, format, args) == length)
    text->length = (size_t)length;
}

/* The writer lock of a log file: an exclusive lock on one byte far beyond any data the file will
 * ever hold, so that it never stands in the way of readers. On Windows an append-only write is
 * already atomic; Wine, however, implements it as "read the file size, then write at that
 * offset", so two appenders can pick the same offset and one record overwrites part of the other.
 * Every jot writer takes the lock around its write, which closes that gap and costs little where
 * it isn't needed. A handle without read access, or a file system without byte-range locks,
 * makes the lock fail; the record is then written without it. */
static int lock_log_file(HANDLE file, OVERLAPPED *region) {
  memset(region, 0, sizeof *region);
  region->OffsetHigh = 0x7FFFFFFF;
  return LockFileEx(file, LOCKFILE_EXCLUSIVE_LOCK, 0, 1, 0, region);
}

/* One JSON record and its newline, in a single write. */
static void write_record(const jot_client *client, const jot_message *message, int level, const jot_buffer *text) {
  jot_buffer record;
  SYSTEMTIME now;
  DWORD written;
  size_t i;

  GetSystemTime(&now);
  buffer_init(&record);
  buffer_append_text(&record, "{\"time\":\"");
  buffer_append_unsigned(&record, now.wYear, 4);
  buffer_append_char(&record, '-');
  buffer_append_unsigned(&record, now.wMonth, 2);
  buffer_append_char(&record, '-');
  buffer_append_unsigned(&record, now.wDay, 2);
  buffer_append_char(&record, 'T');
  buffer_append_unsigned(&record, now.wHour, 2);
  buffer_append_char(&record, ':');
  buffer_append_unsigned(&record, now.wMinute, 2);
  buffer_append_char(&record, ':');
  buffer_append_unsigned(&record, now.wSecond, 2);
  buffer_append_char(&record, '.');
  buffer_append_unsigned(&record, now.wMilliseconds, 3);
  buffer_append_text(&record, "Z\",\"pid\":");
  buffer_append_unsigned(&record, GetCurrentProcessId(), 0);
  buffer_append_text(&record, ",\"tid\":");
  buffer_append_unsigned(&record, GetCurrentThreadId(), 0);
  buffer_append_text(&record, ",\"ident\":");
  buffer_append_json_text(&record, client->ident);
  buffer_append_text(&record, ",\"facility\":");
  buffer_append_json_text(&record, client->facility);
  buffer_append_text(&record, ",\"level\":");
  buffer_append_signed(&record, level);
  buffer_append_text(&record, ",\"message\":");
  buffer_append_json(&record, text->data, text->length);
  if (message != NULL && message->count != 0) {
    buffer_append_text(&record, ",\"fields\":{");
    for (i = 0; i < message->count; ++i) {
      if (i != 0)
        buffer_append_char(&record, ',');
      buffer_append_json_text(&record, message->pairs[i].key);
      buffer_append_char(&record, ':');
      buffer_append_json_text(&record, message->pairs[i].value);
    }
    buffer_append_char(&record, '}');
  }
  buffer_append_text(&record, "}\n");

  /* A record that could not be built whole is not written at all: a partial one would be a
   * malformed line for every reader. */
  if (!record.failed && record.length <= MAXDWORD) {
    OVERLAPPED region;
    int locked = lock_log_file(client->file, &region);
    WriteFile(client->file, record.data, (DWORD)record.length, &written, NULL);
    if (locked)
      UnlockFileEx(client->file, 0, 1, 0, &region);
  }
  buffer_free(&record);
}

static void write_debugger(const jot_client *client, const jot_buffer *text) {
  jot_buffer line;
  /* Only a debugger is sent the line. Without one, the system would discard the string unless a
   * debug-output monitor listens, yet the call still costs an exception dispatch and a look-up of
   * the monitor's shared memory: about 60 microseconds under Wine, paid on every line of a
   * program that logs to nowhere. Asking whether a monitor listens is itself a named-object
   * look-up of about the same cost, so monitors are not served; JOT_LOG_FILE is the way to
   * collect lines without a debugger. */
  if (!IsDebuggerPresent())
    return;
  buffer_init(&line);
  if (client->ident != NULL) {
    buffer_append_text(&line, client->ident);
    buffer_append(&line, ": ", 2);
  }
  buffer_append(&line, text->data, text->length);
  buffer_append_char(&line, '\0');
  if (!line.failed)
    OutputDebugStringA(line.data);
  buffer_free(&line);
}

/* Straight to the process's standard error handle, not through a C runtime's stderr stream:
 * the program may use another runtime than this DLL, and one write keeps the line whole. */
static void write_stderr(const jot_buffer *text) {
  HANDLE error = GetStdHandle(STD_ERROR_HANDLE);
  jot_buffer line;
  DWORD written;
  if (error == NULL || error == INVALID_HANDLE_VALUE)
    return;
  buffer_init(&line);
  buffer_append(&line, text->data, text->length);
  buffer_append_char(&line, '\n');
  if (!line.failed && line.length <= MAXDWORD)
    WriteFile(error, line.data, (DWORD)line.length, &written, NULL);
  buffer_free(&line);
}

static void log_line(const jot_client *client, const jot_message *message, int level, const char *format, va_list args) {
  jot_buffer text;
  /* A line that no one will receive is not even formatted: programs log on their failure paths,
   * and those should cost no more than they must when logging goes nowhere. */
  if (client->file == INVALID_HANDLE_VALUE && !(client->options & JOT_OPTION_STDERR) && !IsDebuggerPresent())
    return;
  buffer_init(&text);
  format_text(&text, format, args);
  if (!text.failed) {
    if (client->file != INVALID_HANDLE_VALUE)
      write_record(client, message, level, &text);
    else
      write_debugger(client, &text);
    if (client->options & JOT_OPTION_STDERR)
      write_stderr(&text);
  }
  buffer_free(&text);
}

/* ---- The API -------------------------------------------------------------------------------- */

/* Places a copy of text (NULL for none) at *next and advances *next past it. */
static char *place_text(const char *text, size_t size, char **next) {
  char *copy = *next;
  if (text == NULL)
    return NULL;
  memcpy(copy, text, size);
  *next += size;
  return copy;
}

jot_client *jot_open(const char *ident, const char *facility, unsigned options) {
  DWORD error = GetLastError();
  size_t ident_size = ident != NULL ? strlen(ident) + 1 : 0;
  size_t facility_size = facility != NULL ? strlen(facility) + 1 : 0;
  jot_client *client = NULL;
  if (ident_size <= (size_t)-1 - sizeof *client - facility_size)
    client = calloc(1, sizeof *client + ident_size + facility_size);
  if (client != NULL) {
    char *next = (char *)(client + 1);
    client->ident = place_text(ident, ident_size, &next);
    client->facility = place_text(facility, facility_size, &next);
    client->options = options;
    client->file = open_log_file();
  }
  SetLastError(error);
  return client;
}

void jot_vlog(jot_client *client, jot_message *message, int level, const char *format, va_list args) {
  DWORD error = GetLastError();
  if (client != NULL) {
    log_line(client, message, level, format, args);
  } else {
    /* A client of its own for this line, on the stack so that it exists even when memory has
     * run out (which is the usual reason for a NULL client). */
    jot_client anonymous;
    anonymous.file = open_log_file();
    anonymous.ident = NULL;
    anonymous.facility = NULL;
    anonymous.options = 0;
    log_line(&anonymous, message, level, format, args);
    if (anonymous.file != INVALID_HANDLE_VALUE)
      CloseHandle(anonymous.file);
  }
  SetLastError(error);
}

void jot_log(jot_client *client, jot_message *message, int level, const char *format, ...) {
  va_list args;
  va_start(args, format);
  jot_vlog(client, message, level, format, args);
  va_end(args);
}

void jot_close(jot_client *client) {
  DWORD error = GetLastError();
  if (client != NULL) {
    if (client->file != INVALID_HANDLE_VALUE)
      CloseHandle(client->file);
    free(client);
  }
  SetLastError(error);
}

jot_message *jot_message_create(void) {
  DWORD error = GetLastError();
  jot_message *message = calloc(1, sizeof *message);
  SetLastError(error);
  return message;
}

void jot_message_set(jot_message *message, const char *key, const char *value) {
  DWORD error = GetLastError();
  char *copy;
  size_t i;
  if (message == NULL || key == NULL)
    goto done;
  copy = copy_text(value != NULL ? value : "");
  if (copy == NULL)
    goto done;
  for (i = 0; i < message->count; ++i) {
    if (strcmp(message->pairs[i].key, key) == 0) {
      free(message->pairs[i].value);
      message->pairs[i].value = copy;
      goto done;
    }
  }
  if (message->count == message->capacity) {
    size_t capacity = message->capacity == 0 ? 4 : message->capacity * 2;
    struct jot_pair *pairs = capacity > ((size_t)-1) / sizeof *pairs ? NULL : realloc(message->pairs, capacity * sizeof *pairs);
    if (pairs == NULL) {
      free(copy);
      goto done;
    }
    message->pairs = pairs;
    message->capacity = capacity;
  }
  message->pairs[message->count].key = copy_text(key);
  if (message->pairs[message->count].key == NULL) {
    free(copy);
    goto done;
  }
  message->pairs[message->count].value = copy;
  ++message->count;
done:
  SetLastError(error);
}

void jot_message_release(jot_message *message) {
  DWORD error = GetLastError();
  size_t i;
  if (message != NULL) {
    for (i = 0; i < message->count; ++i) {
      free(message->pairs[i].key);
      free(message->pairs[i].value);
    }
    free(message->pairs);
    free(message);
  }
  SetLastError(error);
}
