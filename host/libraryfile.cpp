#include "libraryfile.h"

#include <cstring>
#include <fstream>
#include <iterator>

#ifdef __linux__
#include <elf.h>
#elif defined(__APPLE__)
#include <mach-o/loader.h>
#endif

namespace libraryfile {

namespace {

// A file's bytes, of which nothing is believed that is not inside.
class Image {
 public:
  explicit Image(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    m_bytes.assign(std::istreambuf_iterator<char>(file), {});
  }

  template <typename Record>
  std::optional<Record> At(std::size_t offset) const {
    if (offset > m_bytes.size() || m_bytes.size() - offset < sizeof(Record)) return std::nullopt;
    Record record;
    std::memcpy(&record, m_bytes.data() + offset, sizeof record);
    return record;
  }

  std::string TextAt(std::size_t offset) const { return offset < m_bytes.size() ? m_bytes.data() + offset : ""; }

 private:
  std::string m_bytes;  // ends in NUL
};

#ifdef __linux__

std::optional<Elf64_Ehdr> headerOf(const Image& image) {
  const auto header = image.At<Elf64_Ehdr>(0);
  if (!header || std::memcmp(header->e_ident, ELFMAG, SELFMAG) != 0) return std::nullopt;
  return header->e_ident[EI_CLASS] == ELFCLASS64 ? header : std::nullopt;
}

std::optional<Elf64_Shdr> sectionOf(const Image& image, const Elf64_Ehdr& header, std::size_t number) {
  return number < header.e_shnum ? image.At<Elf64_Shdr>(header.e_shoff + number * header.e_shentsize) : std::nullopt;
}

bool isExported(const Elf64_Sym& symbol) {
  const unsigned char visibility = ELF64_ST_VISIBILITY(symbol.st_other);
  return symbol.st_shndx != SHN_UNDEF && symbol.st_shndx != SHN_ABS && ELF64_ST_BIND(symbol.st_info) != STB_LOCAL &&
         (visibility == STV_DEFAULT || visibility == STV_PROTECTED);
}

#endif

}  // namespace

#ifdef __linux__

// A program that may be loaded anywhere is of the same type and names its loader.
bool IsSharedLibrary(const std::string& path) {
  const Image image(path);
  const auto header = headerOf(image);
  if (!header || header->e_type != ET_DYN) return false;
  for (std::size_t i = 0; i < header->e_phnum; ++i) {
    const auto segment = image.At<Elf64_Phdr>(header->e_phoff + i * header->e_phentsize);
    if (!segment || segment->p_type == PT_INTERP) return false;
  }
  return true;
}

std::optional<std::vector<std::string>> ExportedNames(const std::string& path) {
  const Image image(path);
  const auto header = headerOf(image);
  if (!header) return std::nullopt;
  for (std::size_t i = 0; i < header->e_shnum; ++i) {
    const auto section = sectionOf(image, *header, i);
    if (!section || section->sh_type != SHT_DYNSYM) continue;
    const auto texts = sectionOf(image, *header, section->sh_link);
    if (!texts) return std::nullopt;
    std::vector<std::string> names;
    for (std::size_t at = 0; at < section->sh_size; at += sizeof(Elf64_Sym)) {
      const auto symbol = image.At<Elf64_Sym>(section->sh_offset + at);
      if (!symbol) return std::nullopt;
      if (isExported(*symbol)) names.push_back(image.TextAt(texts->sh_offset + symbol->st_name));
    }
    return names;
  }
  return std::nullopt;
}

#else

bool IsSharedLibrary(const std::string& path) {
#ifdef __APPLE__
  const auto header = Image(path).At<mach_header_64>(0);
  return header && header->magic == MH_MAGIC_64 && (header->filetype == MH_DYLIB || header->filetype == MH_BUNDLE);
#else
  return path.ends_with(".so");
#endif
}

std::optional<std::vector<std::string>> ExportedNames(const std::string& /*path*/) { return std::nullopt; }

#endif

}  // namespace libraryfile
