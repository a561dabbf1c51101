// What is doubtful about the configuration: what was read otherwise than whoever wrote it will have meant,
// and what of it did not work out (a port that is taken). Each is a line with file, line, key, value and what
// was taken; passwords are never in it.
#pragma once

#include <cstddef>

namespace orx {

struct Doubt {
    unsigned nLine;    // of the file; 0: none
    char szText[768];  // the whole line
    int bRefuses;  // it is about who may do what, or about what the server cannot be without: no strict start
};

struct DoubtList {
    Doubt *pDoubts = nullptr;  // owned, from malloc
    size_t nDoubts = 0;
};

// Adds one. Without memory it is lost; in place of the 1000th and all behind it one stands that refuses.
void DoubtAdd(DoubtList *pList, int bRefuses, const char *szText);
// The same of a line of the file, from 1: DoubtsSort brings those into the order of the lines, behind them
// the others (0) as they were added.
void DoubtAddAt(DoubtList *pList, int bRefuses, unsigned nLine, const char *szText);
void DoubtsSort(DoubtList *pList);
int DoubtsFull(const DoubtList *pList);    // whether no more are taken
void DoubtsFree(DoubtList *pList);         // leaves an empty list
int DoubtsRefuse(const DoubtList *pList);  // whether one of them refuses

// Whether a doubt that refuses keeps the server from starting: the option "--strict", or else [GUARD]
// StrictConfig of what was read. Main thread before others run sets the option; any thread reads.
void DoubtsSetStrict(int bStrict);
int DoubtsStrict(int bStrictConfig);

// Those of the configuration that is in force. Filled by the main thread before others run; afterwards the
// scheduler thread's.
extern DoubtList g_doubts;

}  // namespace orx
