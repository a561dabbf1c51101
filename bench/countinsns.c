/* A plugin of qemu's user emulation: counts the instructions that a thread runs between close(-7777) and close(-7778),
 * which fail and do nothing else. Prints "Collected : N" at the end, as callgrind does. With ",into=PATH" behind its name
 * it counts those of all threads from the start on, and has the number in that file, 8 bytes, all the time. The few declarations of qemu's
 * interface (version 1) that it needs stand here, because no package brings them. */
#include <inttypes.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

typedef uint64_t Id;
struct qemu_plugin_tb;
typedef void (*TranslateProc)(Id id, struct qemu_plugin_tb *pBlock);
typedef void (*RunProc)(unsigned nThread, void *pContext);
typedef void (*CallProc)(Id id, unsigned nThread, int64_t nCall, uint64_t a, uint64_t b, uint64_t c, uint64_t d,
                         uint64_t e, uint64_t f, uint64_t g, uint64_t h);
typedef void (*EndProc)(Id id, void *pContext);

extern void qemu_plugin_register_vcpu_tb_trans_cb(Id id, TranslateProc pfn);
extern void qemu_plugin_register_vcpu_tb_exec_cb(struct qemu_plugin_tb *pBlock, RunProc pfn, int nFlags,
                                                 void *pContext);
extern void qemu_plugin_register_vcpu_syscall_cb(Id id, CallProc pfn);
extern void qemu_plugin_register_atexit_cb(Id id, EndProc pfn, void *pContext);
extern size_t qemu_plugin_tb_n_insns(const struct qemu_plugin_tb *pBlock);
extern void qemu_plugin_outs(const char *szText);

__attribute__((visibility("default"))) int qemu_plugin_version = 1;
__attribute__((visibility("default"))) int qemu_plugin_install(Id id, const void *pInfo, int argc, char **argv);

static unsigned g_nThread = ~0u; /* that counts; one at a time does */
static uint64_t g_nInstructions;
static uint64_t *g_pAll; /* of all threads; null: not counted */

static void OnRun(unsigned nThread, void *pContext)
{
    if (nThread == g_nThread)
        g_nInstructions += (uintptr_t)pContext;
}

static void OnRunAll(unsigned nThread, void *pContext)
{
    (void)nThread;
    __atomic_fetch_add(g_pAll, (uintptr_t)pContext, __ATOMIC_RELAXED);
}

static void OnTranslate(Id id, struct qemu_plugin_tb *pBlock)
{
    (void)id;
    qemu_plugin_register_vcpu_tb_exec_cb(pBlock, g_pAll ? OnRunAll : OnRun, 0, (void *)qemu_plugin_tb_n_insns(pBlock));
}

static void OnCall(Id id, unsigned nThread, int64_t nCall, uint64_t a, uint64_t b, uint64_t c, uint64_t d, uint64_t e,
                   uint64_t f, uint64_t g, uint64_t h)
{
    (void)id, (void)nCall, (void)b, (void)c, (void)d, (void)e, (void)f, (void)g, (void)h;
    if ((int32_t)a == -7777)
        g_nThread = nThread;
    else if ((int32_t)a == -7778)
        g_nThread = ~0u;
}

static void OnEnd(Id id, void *pContext)
{
    char szText[64];
    (void)id, (void)pContext;
    snprintf(szText, sizeof(szText), "Collected : %" PRIu64 "\n", g_nInstructions);
    qemu_plugin_outs(szText);
}

/* Returns 1, or 0 when the file cannot be made. */
static int CountAll(const char *szPath)
{
    int fd = open(szPath, O_RDWR | O_CREAT, 0666);
    if (fd < 0 || ftruncate(fd, sizeof(*g_pAll)) != 0)
        return 0;
    void *p = mmap(NULL, sizeof(*g_pAll), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    g_pAll = p == MAP_FAILED ? NULL : p;
    return g_pAll != NULL;
}

int qemu_plugin_install(Id id, const void *pInfo, int argc, char **argv)
{
    (void)pInfo;
    if (argc > 0 && strncmp(argv[0], "into=", 5) == 0 && !CountAll(argv[0] + 5))
        return -1;
    qemu_plugin_register_vcpu_tb_trans_cb(id, OnTranslate);
    qemu_plugin_register_vcpu_syscall_cb(id, OnCall);
    qemu_plugin_register_atexit_cb(id, OnEnd, NULL);
    return 0;
}
