#include "main/startcode.h"

#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

#include "runtime/taskwatch.h"

namespace orx {

// Code is never written to, so that the file has all of it.
static int DropCode(dl_phdr_info *pModule, size_t, void *)
{
    auto nPage = static_cast<ElfW(Addr)>(sysconf(_SC_PAGESIZE));
    for (int i = 0; i < pModule->dlpi_phnum; i++) {
        const ElfW(Phdr) *p = &pModule->dlpi_phdr[i];
        if (p->p_type != PT_LOAD || !(p->p_flags & PF_X) || (p->p_flags & PF_W))
            continue;
        ElfW(Addr) nFrom = (pModule->dlpi_addr + p->p_vaddr) & ~(nPage - 1);
        ElfW(Addr) nBytes = pModule->dlpi_addr + p->p_vaddr + p->p_memsz - nFrom;
        madvise(reinterpret_cast<void *>(nFrom), nBytes, MADV_DONTNEED);
    }
    return 0;
}

void DropStartCode()
{
    if constexpr (!kWatchTasks)
        dl_iterate_phdr(DropCode, nullptr);
}

}  // namespace orx
