// What the C++ run-time library brings along for exceptions, of which this program has none: the tables, the
// unwinder and the names for messages take 70 kB of the box. A program without memory, or with an index out
// of range, ends here as it would by an exception that nobody catches.
#include <cstdio>
#include <cstdlib>
#include <new>

static void *Allocate(size_t nBytes)
{
    return malloc(nBytes ? nBytes : 1);
}

[[noreturn]] static void End(const char *szWhy)
{
    fprintf(stderr, "%s\n", szWhy);
    abort();
}

void *operator new(size_t nBytes)
{
    void *p = Allocate(nBytes);
    if (!p)
        End("no memory is left");
    return p;
}

void *operator new[](size_t nBytes)
{
    return operator new(nBytes);
}

void *operator new(size_t nBytes, const std::nothrow_t &) noexcept
{
    return Allocate(nBytes);
}

void *operator new[](size_t nBytes, const std::nothrow_t &) noexcept
{
    return Allocate(nBytes);
}

void operator delete(void *p) noexcept
{
    free(p);
}

void operator delete[](void *p) noexcept
{
    free(p);
}

void operator delete(void *p, size_t) noexcept
{
    free(p);
}

void operator delete[](void *p, size_t) noexcept
{
    free(p);
}

// The library's own checks call these by name.
namespace std {

void __throw_out_of_range_fmt(const char *szFormat, ...)
{
    End(szFormat);
}

void __throw_length_error(const char *szWhy)
{
    End(szWhy);
}

void __throw_logic_error(const char *szWhy)
{
    End(szWhy);
}

void __throw_bad_alloc()
{
    End("no memory is left");
}

void __throw_system_error(int)
{
    End("a lock cannot be used");
}

void __throw_bad_array_new_length()
{
    End("an array is too long");
}

}  // namespace std
