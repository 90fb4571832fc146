// SPDX-License-Identifier: Apache-2.0
// The program's own table of symbols tells where they are: those of the sanitizers and of the laboratory stay.
#include "sim/ThreadLocals.h"

#if defined(__x86_64__)
#include <elf.h>
#include <link.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <string>
#include <utility>
#endif

namespace OrvLab {

namespace {

using Ranges = std::vector<ThreadLocals::Range>;

#if defined(__x86_64__)

bool IsExplored(const char* symbol) {
    for (const char* name : {"OrvPlatform", "CommonUtils", "quillogger", "QUILMQTT", "OrvStackSdk"})
        if (std::strstr(symbol, name) != nullptr)
            return true;
    return false;
}

/// Where the program's thread-local variables begin: before what the thread pointer points to.
char* BeginOfThreadLocals(const Elf64_Ehdr& header, const std::string& image) {
    std::uintptr_t pointer = 0;
    asm("mov %%fs:0, %0" : "=r"(pointer));
    const auto* segments = reinterpret_cast<const Elf64_Phdr*>(image.data() + header.e_phoff);
    for (unsigned index = 0; index < header.e_phnum; ++index)
        if (segments[index].p_type == PT_TLS)
            return reinterpret_cast<char*>((pointer - segments[index].p_memsz) & ~(segments[index].p_align - 1));
    return nullptr;
}

Ranges Find() {
    Ranges found;
    std::ifstream file("/proc/self/exe", std::ios::binary);
    std::string image(static_cast<std::size_t>(file.seekg(0, std::ios::end).tellg()), '\0');
    file.seekg(0).read(image.data(), static_cast<std::streamsize>(image.size()));
    const auto& header = *reinterpret_cast<const Elf64_Ehdr*>(image.data());
    char* const begin = BeginOfThreadLocals(header, image);
    const auto* sections = reinterpret_cast<const Elf64_Shdr*>(image.data() + header.e_shoff);
    for (unsigned index = 0; begin != nullptr && index < header.e_shnum; ++index) {
        if (sections[index].sh_type != SHT_SYMTAB)
            continue;
        const char* names = image.data() + sections[sections[index].sh_link].sh_offset;
        const auto* symbols = reinterpret_cast<const Elf64_Sym*>(image.data() + sections[index].sh_offset);
        for (std::size_t number = 0; number < sections[index].sh_size / sizeof(Elf64_Sym); ++number)
            if (ELF64_ST_TYPE(symbols[number].st_info) == STT_TLS && symbols[number].st_size != 0 &&
                IsExplored(names + symbols[number].st_name))
                found.push_back({begin + symbols[number].st_value, symbols[number].st_size});
    }
    return found;
}

#else

Ranges Find() {
    return {};
}

#endif

std::vector<char> Content() {
    std::vector<char> content;
    for (const ThreadLocals::Range& range : ThreadLocals::All())
        content.insert(content.end(), range.begin, range.begin + range.size);
    return content;
}

} // namespace

const Ranges& ThreadLocals::All() {
    static const Ranges all = Find();
    return all;
}

ThreadLocals::ThreadLocals() {
    static const std::vector<char> atFirst = Content();
    kept = atFirst;
}

// Byte by byte: ThreadSanitizer sees the library's copies, and takes them for the program's.
void ThreadLocals::Exchange() {
    volatile char* mine = kept.data();
    for (const Range& range : All())
        for (std::size_t index = 0; index < range.size; ++index) {
            volatile char* theirs = range.begin + index;
            const char before = *theirs;
            *theirs = *mine;
            *mine++ = before;
        }
}

} // namespace OrvLab
