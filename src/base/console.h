// The two output channels of every module: the console print and the log file.
#pragma once

#include <cstddef>

namespace orx {

// Prints printf-style on standard output; silent once ConsoleSetDaemon(1) was called. Any thread; one call
// comes out in one piece. Never waits for a reader: what a full pipe does not take is held up to 64 kB and
// written by a later call, and what is lost beyond that is counted and said then. A text of a peer is only
// ever an argument, never the format, and goes through PrintableText (see printable.h).
__attribute__((format(printf, 1, 2))) void print(const char *szFormat, ...);

// As print, but callable from a signal handler: formats nothing, allocates nothing, takes no lock.
void ConsoleWriteRaw(const char *szText, size_t nLen);

// The same on standard error, which a daemon keeps: what has to be said before an abort. Any thread.
void ConsoleError(const char *szText, size_t nLen);

// Writes what is held on both streams as far as it is taken at once; bLast waits up to a second for a reader.
void ConsoleFlush(int bLast);

// Has writes to a terminal, or to a pipe that others write to as well, never block either (1), or goes back
// to the standard streams as they are (0). At start-up, before threads run.
void ConsoleUnblock(int bOn);

// Silences the console (1) or lets it speak again (0).
void ConsoleSetDaemon(int bDaemon);

// Has print say nothing (1) but what a thread says that holds a ConsoleAnswers: the answers to commands. Any
// thread.
void ConsoleSetQuiet(int bQuiet);
struct ConsoleAnswers {
    ConsoleAnswers();
    ~ConsoleAnswers();
    ConsoleAnswers(const ConsoleAnswers &) = delete;
    ConsoleAnswers &operator=(const ConsoleAnswers &) = delete;
};

// Names the log file and says whether lines are written to it (nEnabled non-zero). At start-up, before
// threads run.
void LogSetup(const char *szPath, int nEnabled);

// Appends one line, stamped with the local time, to the log file; the first line of a day and of a process
// gets a date header. Does nothing while the log is off or when the file cannot be opened. A file of more
// than 204800 bytes first loses its oldest 51200, rounded up to a line. The file is opened and closed for
// every line, so that it may be moved away at any time. Any thread.
__attribute__((format(printf, 1, 2))) void log(const char *szFormat, ...);

// Has lines wait in memory, up to 256 kB, until LogWriteSome writes them, so that log never waits for a disk.
// pfnCall asks for that when a line waits, once until LogWriteSome returns 1; any thread. What does not fit
// is counted, and said in the log in its place. Null: whoever says a line writes it again, and what waits is
// written at once. Main thread.
void LogDivert(void (*pfnCall)());
// Writes some of the lines that wait. Returns 1 when none is left, else 0. One thread at a time.
int LogWriteSome();

}  // namespace orx
