#include "sentence_transformers/torch/undestroyed_statics.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

using Header = ElfW(Phdr);
using DynamicEntry = ElfW(Dyn);
using Symbol = ElfW(Sym);
using Relocation = ElfW(Rela);

/// What the names of libtorch's files begin with, and of the libraries that come with it.
constexpr std::array<std::string_view, 3> kFiles = {"libc10", "libtorch", "libgomp"};
constexpr const char* kRegistration = "__cxa_atexit";  // `atexit` calls it, too

constinit bool statics_stay = false;

/// Takes the place of the above. The system takes the memory back.
int register_nothing(void (*)(void*), void*, void*) noexcept { return 0; }

template <typename Type>
Type* pointer_to(std::uintptr_t address) {
  return reinterpret_cast<Type*>(address);  // NOLINT(performance-no-int-to-ptr)
}

/// A loaded file's relocations, by the entries of its dynamic section.
class BoundFile {
 public:
  explicit BoundFile(const dl_phdr_info& file) : _file(file) {
    const auto* const header = _header_of(PT_DYNAMIC);
    if (header != nullptr) {
      _dynamic = pointer_to<const DynamicEntry>(file.dlpi_addr + header->p_vaddr);
    }
  }

  /// Binds what is bound to the function `name` to another. Whether there was anything.
  bool bind(const char* name, void* function) const {
    if (_dynamic == nullptr) return false;
    const bool is_called = _bind(_address(DT_JMPREL), _number(DT_PLTRELSZ), name, function);
    const bool is_referred_to = _bind(_address(DT_RELA), _number(DT_RELASZ), name, function);
    return is_called || is_referred_to;
  }

 private:
  const Header* _header_of(std::uint32_t type) const {
    const auto* const end = _file.dlpi_phdr + _file.dlpi_phnum;
    const auto* const found = std::find_if(
        _file.dlpi_phdr, end, [type](const auto& each) { return each.p_type == type; });
    return found == end ? nullptr : found;
  }

  /// An entry's value; 0 without the entry.
  std::size_t _number(std::int64_t tag) const {
    for (const DynamicEntry* entry = _dynamic; entry->d_tag != DT_NULL; ++entry) {
      if (entry->d_tag == tag) return entry->d_un.d_val;
    }
    return 0;
  }

  /// The same for an address, which the loader has made absolute on most systems.
  std::uintptr_t _address(std::int64_t tag) const {
    const std::uintptr_t value = _number(tag);
    return value == 0 || value >= _file.dlpi_addr ? value : _file.dlpi_addr + value;
  }

  bool _bind(std::uintptr_t table, std::size_t size, const char* name, void* function) const {
    const auto* const symbols = pointer_to<const Symbol>(_address(DT_SYMTAB));
    const auto* const names = pointer_to<const char>(_address(DT_STRTAB));
    const auto* relocation = pointer_to<const Relocation>(table);
    if (symbols == nullptr || names == nullptr || relocation == nullptr) return false;
    bool is_bound = false;
    for (; size >= sizeof(*relocation); size -= sizeof(*relocation), ++relocation) {
      const std::size_t symbol = ELF64_R_SYM(relocation->r_info);
      if (symbol == 0 || std::strcmp(names + symbols[symbol].st_name, name) != 0) continue;
      is_bound = _write(_file.dlpi_addr + relocation->r_offset, function) || is_bound;
    }
    return is_bound;
  }

  /// Some files have their bindings write-protected once they are made.
  bool _write(std::uintptr_t place, void* function) const {
    const auto page_size = static_cast<std::uintptr_t>(getpagesize());
    void* const page = pointer_to<void>(place / page_size * page_size);
    const auto* const read_only = _header_of(PT_GNU_RELRO);
    const bool is_read_only =
        read_only != nullptr && place - _file.dlpi_addr - read_only->p_vaddr < read_only->p_memsz;
    if (is_read_only && mprotect(page, page_size, PROT_READ | PROT_WRITE) != 0) return false;
    *pointer_to<void*>(place) = function;
    if (is_read_only) mprotect(page, page_size, PROT_READ);
    return true;
  }

  const dl_phdr_info& _file;
  const DynamicEntry* _dynamic = nullptr;
};

int bind_file(dl_phdr_info* file, std::size_t, void*) {
  std::string_view name = file->dlpi_name;
  name.remove_prefix(name.rfind('/') + 1);
  const auto begins_name = [name](std::string_view each) { return name.starts_with(each); };
  if (std::ranges::any_of(kFiles, begins_name)) {
    const bool is_bound =
        BoundFile(*file).bind(kRegistration, reinterpret_cast<void*>(&register_nothing));
    statics_stay = statics_stay || is_bound;
  }
  return 0;
}

__attribute__((constructor)) void keep_statics() { dl_iterate_phdr(bind_file, nullptr); }

}  // namespace

bool tovana_torch_statics_stay() noexcept { return statics_stay; }
