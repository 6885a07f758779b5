#include "archives/reading/cage/CVCageMemory.h"

#include <fcntl.h>
#include <sys/mman.h>

std::unique_ptr<CVCageMemory> CVCageMemory::create()
{
    LXFileDescriptor file(::memfd_create("corvane-reader", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    // A reader that could shorten it would end the program at its next look.
    if (!file.isOpen() || ::ftruncate(file.get(), allBytes) != 0 ||
        ::fcntl(file.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) != 0)
        return nullptr;
    return map(std::move(file));
}

std::unique_ptr<CVCageMemory> CVCageMemory::map(LXFileDescriptor file)
{
    void *const base = ::mmap(nullptr, allBytes, PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
    if (base == MAP_FAILED)
        return nullptr;
    return std::unique_ptr<CVCageMemory>(new CVCageMemory(std::move(file), static_cast<char *>(base)));
}

CVCageMemory::~CVCageMemory()
{
    ::munmap(m_base, allBytes);
}
