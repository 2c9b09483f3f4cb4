"""What a compiled library says about itself: its symbols, virtual tables and types."""

import io
import pathlib
import subprocess

from elftools.elf.elffile import ELFFile
from elftools.elf.relocation import RelocationSection


def demangle(names):
    """The names in C++ form, in the same order."""
    run = subprocess.run(
        ["c++filt"], input="\n".join(names), text=True, check=True, stdout=subprocess.PIPE
    )
    return run.stdout.splitlines()


class ElfImage:
    def __init__(self, path):
        self._elf = ELFFile(io.BytesIO(pathlib.Path(path).read_bytes()))
        self._by_name = {}
        self._by_address = {}
        table = self._elf.get_section_by_name(".symtab")
        for symbol in table.iter_symbols() if table else ():
            if symbol["st_shndx"] != "SHN_UNDEF" and symbol.name:
                self._by_name[symbol.name] = symbol
                self._by_address.setdefault(symbol["st_value"], []).append(symbol.name)

    def dynamic(self, tag):
        """Texts of the dynamic section's entries with `tag` ("NEEDED", "SONAME", ...)."""
        attribute = tag.lower()
        section = self._elf.get_section_by_name(".dynamic")
        return [
            getattr(entry, attribute)
            for entry in section.iter_tags()
            if entry.entry.d_tag == "DT_" + tag
        ]

    def exported(self):
        """(mangled name, kind, size) of every symbol that the library defines for others; kind is
        "FUNC" or "OBJECT"."""
        return [
            (symbol.name, symbol["st_info"]["type"].removeprefix("STT_"), symbol["st_size"])
            for symbol in self._elf.get_section_by_name(".dynsym").iter_symbols()
            if symbol["st_shndx"] not in ("SHN_UNDEF", "SHN_ABS") and symbol.name
        ]

    def is_made_for_the_address_sanitizer(self):
        table = self._elf.get_section_by_name(".dynsym")
        return any(symbol.name == "__asan_init" for symbol in table.iter_symbols())

    def has_symbols(self):
        return bool(self._by_name)

    def has_debug_info(self):
        return self._elf.has_dwarf_info()

    def vtable(self, class_name):
        """For each function slot of the virtual table of qel::`class_name`, the mangled names of
        the function that the loader puts there; none where it puts nothing."""
        symbol = self._by_name[f"_ZTVN3qel{len(class_name)}{class_name}E"]
        start, end = symbol["st_value"], symbol["st_value"] + symbol["st_size"]
        filled = {}
        for section in self._elf.iter_sections():
            if not isinstance(section, RelocationSection):
                continue
            symbols = self._elf.get_section(section["sh_link"])
            for relocation in section.iter_relocations():
                address = relocation["r_offset"]
                if start <= address < end:
                    filled[(address - start) // 8] = self._target(relocation, symbols)
        # Slot 0 is the offset to the top, slot 1 the type information.
        return [filled.get(slot, []) for slot in range(2, max(filled) + 1)]

    def _target(self, relocation, symbols):
        index = relocation["r_info_sym"]
        if index != 0:
            return [symbols.get_symbol(index).name]
        return self._by_address.get(relocation["r_addend"], [])

    def types(self):
        """All complete record and enumeration types in namespace qel, by name without it."""
        found = {}
        dwarf = self._elf.get_dwarf_info()
        for unit in dwarf.iter_CUs():
            for die in unit.get_top_DIE().iter_children():
                if die.tag == "DW_TAG_namespace" and _name(die) == "qel":
                    _collect(die, "", found)
        return found


class Type:
    """A record or enumeration type as the debug information describes it."""

    def __init__(self, die):
        self._die = die

    @property
    def size(self):
        return self._die.attributes["DW_AT_byte_size"].value

    def members(self):
        """(name, offset, width) of the type's own data members, in order of declaration. The
        width is None when the type of the member is not described in this binary."""
        return [
            (_name(die), die.attributes["DW_AT_data_member_location"].value, _width(die))
            for die in self._die.iter_children()
            if die.tag == "DW_TAG_member"
            and "DW_AT_data_member_location" in die.attributes
            and not _name(die).startswith("_vptr")
        ]

    def bases(self):
        """(name, offset) of the type's direct bases."""
        return [
            (
                _name(die.get_DIE_from_attribute("DW_AT_type")),
                die.attributes["DW_AT_data_member_location"].value,
            )
            for die in self._die.iter_children()
            if die.tag == "DW_TAG_inheritance"
        ]

    def enumerators(self):
        return {
            _name(die): die.attributes["DW_AT_const_value"].value
            for die in self._die.iter_children()
            if die.tag == "DW_TAG_enumerator"
        }


_TYPES = ("DW_TAG_structure_type", "DW_TAG_class_type", "DW_TAG_enumeration_type")


def _name(die):
    attribute = die.attributes.get("DW_AT_name")
    return attribute.value.decode() if attribute else ""


def _collect(parent, prefix, found):
    for die in parent.iter_children():
        if die.tag == "DW_TAG_namespace":
            _collect(die, f"{prefix}{_name(die)}::", found)
        elif die.tag in _TYPES:
            name = prefix + _name(die).replace(" (", "(")  # compilers differ in void(int)
            if "DW_AT_byte_size" in die.attributes:
                found.setdefault(name, Type(die))
            _collect(die, name + "::", found)


def _width(die):
    """Bytes that a value of the type of `die` takes."""
    if "DW_AT_type" not in die.attributes:
        return None
    kind = die.get_DIE_from_attribute("DW_AT_type")
    if kind.tag == "DW_TAG_array_type":
        element = _width(kind)
        for bounds in kind.iter_children():
            count = bounds.attributes.get("DW_AT_count")
            last = bounds.attributes.get("DW_AT_upper_bound")
            element *= count.value if count else last.value + 1
        return element
    if "DW_AT_byte_size" in kind.attributes:
        return kind.attributes["DW_AT_byte_size"].value
    if kind.tag == "DW_TAG_pointer_type":
        return 8
    return _width(kind)
