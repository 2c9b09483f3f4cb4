"""Finds the places of a C++ source at which a small fault can be seeded."""

import hashlib
import re
from dataclasses import dataclass

EXCHANGED = {
    "comparison": [
        (" < ", " <= "), (" <= ", " < "), (" > ", " >= "), (" >= ", " > "),
        (" < ", " >= "), (" > ", " <= "), (" == ", " != "), (" != ", " == "),
    ],
    "condition": [(" && ", " || "), (" || ", " && ")],
    "arithmetic": [
        (" + ", " - "), (" - ", " + "), (" * ", " + "), (" % ", " / "),
        (" / ", " * "), (" >> ", " >> 1U >> "), (" += ", " -= "),
        ("++", "--"), ("--", "++"), ("std::min(", "std::max("),
    ],
    "boundary": [(" + ", " + 1 + "), (" - ", " - 1 - ")],
    "atomic": [
        (".fetch_add(", ".fetch_sub("), (".fetch_sub(", ".fetch_add("),
        (".fetch_add(", ".store("), (".fetch_sub(", ".store("),
        (".fetch_or(", ".fetch_and("), (".fetch_and(", ".fetch_or("),
        (".fetch_or(", ".store("), (".fetch_and(", ".store("),
    ],
}

# Words that stand for a number, with another of their kind.
WORDS = {
    "true": "false", "false": "true",
    "O_RDWR": "O_RDONLY", "O_RDONLY": "O_RDWR", "O_CREAT": "0", "O_CLOEXEC": "0",
    "O_NOFOLLOW": "0",
    "PROT_READ": "PROT_NONE", "PROT_WRITE": "PROT_NONE", "MAP_SHARED": "MAP_PRIVATE",
    "MAP_FAILED": "nullptr", "SEM_FAILED": "nullptr",
    "LOCK_SH": "LOCK_EX", "LOCK_EX": "LOCK_SH", "LOCK_UN": "LOCK_SH", "LOCK_NB": "0",
    "EINTR": "EAGAIN", "EAGAIN": "EINTR", "EWOULDBLOCK": "EINTR", "EINVAL": "EPERM",
    "ENAMETOOLONG": "EPERM", "EDEADLK": "EPERM", "ETIMEDOUT": "EPERM", "EBADF": "EPERM",
    "EFBIG": "EPERM", "F_SETFD": "F_GETFD", "S_IFREG": "S_IFDIR",
    "LogLevel::Warning": "LogLevel::Error", "LogLevel::Error": "LogLevel::Warning",
    "LogLevel::Critical": "LogLevel::Error", "sink_": "!sink_",
    "SMStatusCode::SUCCESS": "SMStatusCode::INVALID_PARAMETER",
    "SMStatusCode::INVALID_PARAMETER": "SMStatusCode::SUCCESS",
    "SMStatusCode::SHARED_MEMORY_FAILURE": "SMStatusCode::INVALID_PARAMETER",
    "SMStatusCode::NOT_ENOUGH_SPACE": "SMStatusCode::INVALID_PARAMETER",
    "SMStatusCode::DATA_NOT_AVAILABLE": "SMStatusCode::NOT_ENOUGH_SPACE",
    "SMStatusCode::WILL_WRAP": "SMStatusCode::NOT_ENOUGH_SPACE",
}

# A statement that begins so is no expression.
NO_EXPRESSION = re.compile(
    r"(return|if|for|while|do|else|using|namespace|template|typename|case|default|break|continue|"
    r"static_assert|friend|public|private|protected|struct|class|enum|try|goto)\b")
DECLARATION = re.compile(r"[A-Za-z_][\w:]*(<[^;=()]*>)?[\s*&]+[A-Za-z_\[]")
LOCKING = re.compile(r"(const )?std::(lock_guard|unique_lock|shared_lock)\b")


@dataclass(frozen=True)
class Mutant:
    path: str      # from the root of the tree
    line: int      # 1 for the first
    kind: str
    start: int     # offsets in the source
    end: int
    new: str
    before: str    # the line as it is and as it would be, for people
    after: str
    identity: str  # stays when lines above come and go

    def apply(self, source):
        return source[:self.start] + self.new + source[self.end:]


def mask(source):
    """The source with everything that is no code blanked out, and its string literals."""
    code = list(source)
    strings = []

    def blank(start, end):
        for i in range(start, end):
            if code[i] != "\n":
                code[i] = " "

    pattern = re.compile(
        r'//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\\n])*"|(?<!\w)\'(?:\\.|[^\'\\\n])+\'', re.DOTALL)
    for match in pattern.finditer(source):
        blank(*match.span())
        if match.group().startswith('"'):
            strings.append(match.span())
            code[match.start()] = code[match.end() - 1] = '"'
    text = "".join(code)
    for pattern in (r"^[ \t]*#.*$", r"\bstatic_assert\([^;]*;", r"\[\[.*?\]\]",
                    r"\bextern template[^;]*;", r"^template <>$"):
        for match in re.finditer(pattern, text, re.MULTILINE | re.DOTALL
                                 if "static" in pattern else re.MULTILINE):
            blank(*match.span())
            strings = [span for span in strings
                       if not match.start() <= span[0] < match.end()]
    return "".join(code), strings


def closing(code, opening):
    """The offset of the parenthesis that closes the one at `opening`."""
    depth = 0
    for i in range(opening, len(code)):
        depth += {"(": 1, ")": -1}.get(code[i], 0)
        if depth == 0:
            return i
    raise ValueError("an open parenthesis")


def statements(code):
    """Spans of the statements within functions, block by block."""
    blocks = [[]]
    kinds = ["scope"]
    start = 0
    depth = 0
    for i, letter in enumerate(code):
        if letter in "([":
            depth += 1
        elif letter in ")]":
            depth -= 1
        elif letter == "{" and depth == 0:
            head = code[start:i].strip()
            scope = re.search(r"\b(namespace|class|struct|enum|union)\b", head)
            initialiser = re.search(r"[\w>=,]$", head) and not re.search(
                r"\b(const|noexcept|override|else|do|try|final)$", head)
            kinds.append("scope" if scope else "value" if initialiser else "code")
            if kinds[-1] != "value":
                blocks.append([])
                start = i + 1
        elif letter == "}" and depth == 0 and len(kinds) > 1:
            if kinds.pop() != "value":
                start = i + 1
                yield blocks.pop()
                blocks[-1].append(None)
        elif letter == ";" and depth == 0:
            if kinds[-1] == "code":
                text = code[start:i]
                blocks[-1].append((start + len(text) - len(text.lstrip()), i + 1))
            start = i + 1


def is_expression(text):
    return text != ";" and not NO_EXPRESSION.match(text) and (
        re.match(r"(throw|delete)\b", text) or not DECLARATION.match(text)
        or LOCKING.match(text)) and not re.search(r"= (default|delete);", text)


def of_statements(source, code):
    for block in statements(code):
        for first, second in zip(block, block[1:] + [None]):
            if first is None:
                continue
            text = source[slice(*first)]
            if re.match(r"return (?!(true|false|nullptr|\{\}|0);)", text):
                yield "return value", *first, "return {};"
                if re.search(r" (&&|\|\||[=!<>]=|[<>]) ", code[slice(*first)]):
                    yield "return value", *first, f"return !({text[7:-1]});"
            if not is_expression(text):
                continue
            yield "statement removed", *first, ";"
            if second and is_expression(source[slice(*second)]):
                between = source[first[1]:second[0]]
                yield ("order", first[0], second[1],
                       source[slice(*second)] + between + text)


def of_conditions(source, code):
    for match in re.finditer(r"\b(if|while) (?=\()", code):
        opening = match.end()
        end = closing(code, opening)
        start = max(code.rfind("; ", opening, end) + 2, opening + 1)
        text = code[start:end]
        if re.match(r"![\w:.>()-]+$", text) or re.match(r"[^&|]+ [=!<>]=? [^&|]+$", text):
            continue  # another kind of fault does the same
        yield "condition", start, end, f"!({source[start:end]})"
    for match in re.finditer(r"!(?=[\w(*])", code):
        yield "condition", *match.span(), ""
    for match in re.finditer(r" \? ", code):
        found = re.compile(r"([^?:;{}]|::)+? : ").match(code, match.end())
        end = found and re.compile(r"(\([^()]*(\([^()]*\)[^()]*)*\)|[^()?;,}])+").match(
            code, found.end())
        if end:
            first = source[match.end():found.end() - 3]
            yield "condition", match.end(), end.end(), f"{source[slice(*end.span())]} : {first}"


def of_tokens(code):
    for kind, pairs in EXCHANGED.items():
        for old, new in pairs:
            for match in re.finditer(re.escape(old), code):
                yield kind, *match.span(), new
    for word, other in WORDS.items():
        for match in re.finditer(rf"(?<![\w:!.]){re.escape(word)}(?![\w:]| =|\()", code):
            yield "constant", *match.span(), other
    for match in re.finditer(r"(?<![\w.])(\d+)(\.0)?(?=[uUlL]*(?![\w.]))", code):
        digits, point = match.group(1), match.group(2) or ""
        for step in (1, -1):
            number = int(digits, 8 if re.match("0.", digits) else 10) + step
            if number >= 0:
                text = f"0{number:o}" if re.match("0.", digits) else f"{number}{point}"
                yield "constant", *match.span(), text


def of_strings(source, strings):
    for start, end in strings:
        places = [i for i in range(start + 1, end - 1)
                  if source[i].isalnum() and source[i - 1] != "\\"]
        if places:
            place = places[len(places) // 2]
            yield "text", place, place + 1, "x" if source[place] != "x" else "y"
        else:
            yield "text", end - 1, end - 1, "x"


def mutants_of(path, source):
    """All mutants of a source, in the order of their places."""
    code, strings = mask(source)
    found = sorted({*of_statements(source, code), *of_conditions(source, code),
                    *of_tokens(code), *of_strings(source, strings)},
                   key=lambda found: (found[1], found[2], found[0], found[3]))
    seen = {}
    for kind, start, end, new in found:
        first = source.rfind("\n", 0, start) + 1
        last = source.find("\n", end)
        before = source[first:last]
        after = source[first:start] + new + source[end:last]
        key = (path, kind, before.strip(), after.strip())
        seen[key] = seen.get(key, 0) + 1
        identity = hashlib.sha1(repr((key, seen[key])).encode()).hexdigest()[:8]
        yield Mutant(path, source.count("\n", 0, start) + 1, kind, start, end, new,
                     " ".join(before.split()), " ".join(after.split()), identity)
