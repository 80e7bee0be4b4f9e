"""What the reference is made of: the guides, the headers with their groups and functions, the diagrams."""

import collections
import functools
import glob
import os
import re

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
INDEX = "docs/README.md"
CPP = "include/qvopl.hpp"

Page = collections.namedtuple("Page", "path label title is_main")
Comment = collections.namedtuple("Comment", "start end function group")
Function = collections.namedtuple("Function", "name header brief returns_code group doc")


class Group:
    def __init__(self, label, title, header, parent):
        self.label = label
        self.title = title
        self.header = header
        self.parent = parent
        self.callable = parent.callable if parent else None

    @property
    def file(self):
        return "group__" + self.label.replace("_", "__") + ".html"


def read(path):
    with open(os.path.join(ROOT, path), encoding="utf-8") as file:
        return file.read()


def slug(heading):
    """The anchor that a heading gets where the guides are shown as they are."""
    text = re.sub(r"[`*]|\[([^\]]*)\]\([^)]*\)", r"\1", heading).lower()
    return re.sub(r"[^\w\- ]", "", text).replace(" ", "-")


def inputs():
    """What Doxygen reads, as far as it is there."""
    return ["include", "include/qvopl", "docs", "README.md", "CONTRIBUTING.md", "build/reference/pages"]


def version():
    return re.search(r'"(\d{3}\.\d{3})"', read("opl_init/src/OPL_InitInstance.cpp"))[1]


# Guides.


@functools.cache
def pages():
    """The guides by their paths."""
    paths = ["README.md", "CONTRIBUTING.md", *sorted(glob.glob("docs/*.md", root_dir=ROOT))]
    found = {}
    for path in paths:
        title = "Introduction" if path == "README.md" else re.search(r"^# (.*)$", read(path), re.M)[1].replace("`", "")
        label = {"README.md": "introduction", INDEX: "index"}.get(
            path, os.path.splitext(os.path.basename(path))[0].lower().replace("-", "_"))
        found[path] = Page(path, label, title, path == INDEX)
    return found


def chapters():
    """What the index page names, in its order: [(heading, [page])]; a guide that it does not name comes last."""
    result, named = [], {INDEX}
    heading, listed = None, []
    for line in read(INDEX).split("\n"):
        if line.startswith("## "):
            heading, listed = line[3:].strip(), []
            result.append((heading, listed))
        for target in re.findall(r"\]\(([^)#\s]+\.md)", line):
            path = os.path.normpath(os.path.join("docs", target))
            if path in pages() and path not in named and heading is not None:
                named.add(path)
                listed.append(pages()[path])
    rest = [page for path, page in pages().items() if path not in named]
    if rest:
        result.append(("More", rest))
    return [(heading, listed) for heading, listed in result if listed]


def diagrams():
    return sorted(glob.glob("reference/diagrams/*.dot", root_dir=ROOT))


@functools.cache
def diagram_title(name):
    title = re.search(r"^// (.*)$", read(f"reference/diagrams/{name}.dot"), re.M)[1]
    return title.replace("&", "&amp;").replace('"', "&quot;")


# Headers.

TOKEN = re.compile(r"/\*\*(?!<)(?P<doc>.*?)\*/|/\*.*?\*/", re.S)
DECLARATION = re.compile(r"\s*OPL_API\s+(?P<type>[^;()]*?)(?P<name>\w+)\(")


def headers():
    return sorted(glob.glob("include/*.h", root_dir=ROOT))


def brief_of(comment):
    text = re.sub(r"^\s*\*\s?", "", comment, flags=re.M).strip()
    text = re.split(r"@param|@return|@callable|\n\s*\n", text)[0]
    text = " ".join(text.split())
    return re.match(r"(.*?\.)(\s|$)|(.*)", text)[0].strip().rstrip(".:") + "."


def parse_header(header, text):
    """The documentation comments in their order, each with the function that it stands before and its group."""
    found = []
    stack = []
    made = None
    for match in TOKEN.finditer(text):
        doc = match["doc"]
        if doc is None:
            continue
        if group := re.search(r"@defgroup (\w+) (.+)", doc):
            parent = stack[-1] if stack else None
            if outer := re.search(r"@ingroup (\w+)", doc):
                parent = _groups[outer[1]]
            made = Group(group[1], group[2].strip(), header, parent)
            if rule := re.search(r"@callable\s+(.*?)(?=\n\s*\*\s*\n|@\{|\Z)", doc, re.S):
                made.callable = re.sub(r"\s*\n\s*\*\s*", " ", rule[1]).strip()
            _groups.setdefault(made.label, made)
            found.append(Comment(match.start(), match.end(), None, made))
            if "@{" in doc:
                stack.append(made)
            continue
        if "@{" in doc and made is not None:
            stack.append(made)
        if "@}" in doc and stack:
            stack.pop()
        declaration = DECLARATION.match(text, match.end())
        function = None
        group = stack[-1] if stack else None
        if declaration is not None:
            function = Function(declaration["name"], header, brief_of(doc),
                                declaration["type"].strip() == "OPL_Result", group, doc)
        found.append(Comment(match.start(), match.end(), function, group))
    return found


_groups = {}


@functools.cache
def functions():
    """All functions of the headers, by their names."""
    found = {}
    for path in headers():
        for comment in parse_header(os.path.basename(path), read(path)):
            if comment.function is not None:
                found[comment.function.name] = comment.function
    return dict(sorted(found.items()))


def returns_of(name):
    """What stands behind each @return of a function."""
    text = re.sub(r"^\s*\*", "", functions()[name].doc, flags=re.M)
    return [part[len("@return"):].strip() for part in re.split(r"(?=@return|@param|@callable)", text)
            if part.startswith("@return")]


def groups():
    functions()
    return _groups


@functools.cache
def names():
    """Functions, enumerators, types, macros and variables of the headers."""
    found = {"gCrit"}
    for path in headers():
        text = re.sub(r"/\*.*?\*/", " ", read(path), flags=re.S)
        found |= set(re.findall(r"\b(OPL_[A-Z]+_\w+)\s*(?:=|,|\})", text))
        found |= set(re.findall(r"\}\s*(OPL_\w+);|typedef struct \w+ (\w+);", text) and
                     [a or b for a, b in re.findall(r"\}\s*(OPL_\w+);|typedef struct \w+ (\w+);", text)])
        found |= set(re.findall(r"typedef [^;]*\(\*(\w+)\)", text))
        found |= set(re.findall(r"^#define (OPL_\w+) ", text, re.M))
        found |= set(re.findall(r"OPL_API[^;()]*?\b(\w+)\(", text))
    found |= {"OPL_Result", "OPL_OK"}
    return frozenset(found - {"OPL_BEGIN_DECLS", "OPL_END_DECLS"})


@functools.cache
def _meanings():
    found = {"OPL_OK": "done"}
    for path in headers():
        for name, meaning in re.findall(r"\b(OPL_[A-Z]+_E_\w+)\s*=\s*0x\w+\s*,?\s*/\*\*<\s*(.*?)\s*\*/", read(path),
                                        re.S):
            found[name] = re.sub(r"\s*\n\s*\*?\s*", " ", meaning)
    return found


def meaning_of(code):
    return _meanings().get(code, "")


@functools.cache
def enumerators():
    """All enumerators with their meaning and group, by their names."""
    functions()
    found = {}
    for path in headers():
        text = read(path)
        comments = parse_header(os.path.basename(path), text)
        for match in re.finditer(r"\b(OPL_[A-Z]+_\w+)\s*=\s*[^,/}]*,?\s*/\*\*<\s*(.*?)\s*\*/", text, re.S):
            before = [comment for comment in comments if comment.end <= match.start()]
            group = _groups.get(before[-1].group.label) if before and before[-1].group else None
            if group is not None:
                found[match[1]] = (re.sub(r"\s*\n\s*\*?\s*", " ", match[2]), group)
    return found


@functools.cache
def values():
    """The enumerators' values as the headers write them."""
    return dict(re.findall(r"\b(OPL_[A-Z]+_\w+)\s*=\s*(\w+)\s*,?\s*/\*\*<", "".join(map(read, headers()))))


# A documented class that is no specialisation.
CLASS = re.compile(r"\*/\n(?:template <[^\n]*>\n)?(class|struct) (?:\[\[[^\]]*\]\] |OPL_API )*(\w+)\b(?! ?<)")


@functools.cache
def classes():
    """The documented classes of the C++ interface, each with its page, in the order of their names."""
    found = {}
    for path in sorted(glob.glob("include/qvopl/*.hpp", root_dir=ROOT)):
        text = re.sub(r"namespace detail \{.*?\n\}  // namespace detail", "", read(path), flags=re.S)
        for kind, name in CLASS.findall(text):
            found.setdefault(name, f"{kind}qvopl_1_1{name}.html")
    return sorted(found.items())
