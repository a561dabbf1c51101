// The task scheduler: callbacks with a due time, run one at a time on one high-priority thread.
// TaskSchedule and TaskCancel: any thread. Callbacks run on the scheduler thread, without any lock held.
#pragma once

#include <cstdint>

#include "base/linkedlist.h"
#include "runtime/thread.h"

namespace orx {

struct Task;
struct Scheduler;

// Called with due - now, now and due (milliseconds of ClockMs). Returns the milliseconds to the next run, or
// a negative value to end; the task must not be touched after that.
using TaskProc = int (*)(Task *pTask, uint32_t nEarly, uint32_t nNow, uint32_t nDue);

struct Task {
    ListNode node;                    // first; pData is the owner's argument
    int nParam = 0;                   // the number given at scheduling, by habit a descriptor
    TaskProc pfnRun = nullptr;        // not null
    uint32_t nDue = 0;                // ClockMs
    Scheduler *pScheduler = nullptr;  // not owned, never changes
    int bCancelled = 0;               // cancelled while its callback runs; guarded by the scheduler's mutex
};

// What the scheduler thread waits for, if it does.
enum SchedulerWait {
    SCHEDULER_AWAKE,    // nothing: it is at work
    SCHEDULER_PAUSING,  // a short pause, which only a task with delay 0 ends
    SCHEDULER_IDLE,     // the head to become due, or any new head; of an exact one in pauses as well
};

struct Scheduler {
    List urgent;  // tasks with delay 0, newest first; owned, guarded by mutex, as is all that follows
    List tasks;   // the others by due time; owned
    Thread thread;
    pthread_mutex_t mutex{};
    pthread_cond_t wake{};  // ends the wait that eWait names, also on stop; on the monotonic clock
    pthread_cond_t ran{};   // a callback has returned while nCancellers is not 0
    SchedulerWait eWait = SCHEDULER_AWAKE;
    int bUrgent = 0;           // a task with delay 0 was queued since a task was last taken
    int nCorks = 0;            // while not 0, tasks with delay 0 wake nobody
    Task *pRunning = nullptr;  // the task whose callback runs, still in the list
    uint32_t nRuns = 0;        // callbacks that have returned
    int bExact = 0;            // see SchedulerSetExact
    uint32_t nWaits = 0;       // waits ended so far, by the clock or by a signal: how often the thread woke
    unsigned nCancellers = 0;  // threads in TaskCancel that wait for a callback to return
    int bReady = 0;            // mutex, wake and ran exist
    void (*pfnAfter)() = nullptr;  // see SchedulerSetAfterProc
};

// Starts the scheduler thread. Returns 1, or 0 with everything undone.
int SchedulerCreate(Scheduler *pScheduler);
// Asks the thread to end, waits for it (and for a callback that runs), frees all tasks. Accepts one that was
// never created. No other thread uses the scheduler any more; not from inside a callback.
void SchedulerDestroy(Scheduler *pScheduler);
// Schedules pfnRun in nDelayMs milliseconds, below 2^31; 0 puts it in front of all others and wakes the
// thread at once. Others run up to 10 ms early (see SchedulerSetExact). Where tasks with delay 0 do not end,
// all others that are due run once after every 49. Returns the task, which the scheduler owns; running out of
// memory is an assertion.
Task *TaskSchedule(Scheduler *pScheduler, TaskProc pfnRun, uint32_t nDelayMs, int nParam, void *pArgument);
// Removes and frees a task that has not ended; its callback does not run any more. When the callback is just
// running, the task is freed once it has returned, whatever it returns, and a caller on another thread waits
// for that, so that what the callback uses may be freed afterwards: such a caller holds no lock that the
// callback takes. A callback may cancel any task but its own, which it ends by a negative result.
void TaskCancel(Task *pTask);
inline void *TaskArgument(const Task *pTask)
{
    return pTask->node.pData;
}
// Names a procedure that is called on the scheduler thread after each callback, so that what ended while a
// callback used it can be freed. Before the first task is scheduled. Null: none.
void SchedulerSetAfterProc(Scheduler *pScheduler, void (*pfnAfter)());
// With 1, tasks run at most 1 ms early, and no pause goes on when one is due: one that asks to be run again
// in 0 ms is, behind all that is urgent or due. That costs wake-ups that tasks would have shared. Any time.
void SchedulerSetExact(Scheduler *pScheduler, int bExact);
// The number of tasks in the list. A callback that asks is itself not counted.
unsigned SchedulerTaskCount(Scheduler *pScheduler);
// Between SchedulerCork(.., 1) and SchedulerCork(.., 0), which wakes the thread if need be, tasks with delay
// 0 are queued without waking it: a burst costs one wake-up and is in the list, newest first, before it runs.
// Calls nest; the time between them is short.
void SchedulerCork(Scheduler *pScheduler, int bOn);

}  // namespace orx
