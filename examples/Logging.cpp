// Writing to the log through jot, the client that LibSkerry.dll writes its own lines through:
// with JOT_LOG_FILE naming a file, each line is appended to it as one JSON record; this client
// also writes the text of each line to the standard error handle. A program that calls jot links
// LibSkerry::JOT.
#include <jot.h>

#include <cstdio>

int main ()
{
    jot_client * client = ::jot_open ("Logging", "Example", JOT_OPTION_STDERR);
    jot_message * message = ::jot_message_create ();
    ::jot_message_set (message, "user", "example");
    unsigned __int64 bytes = 0x100000000ull;
    ::jot_log (client, message, JOT_LEVEL_NOTICE, "copied %d files, %I64u bytes", 3, bytes);   // checked against its format
    ::jot_message_release (message);
    ::jot_close (client);
    std::printf ("logged one line\n");
    return 0;
}
