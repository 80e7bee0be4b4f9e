"""The frame around the HTML pages, and what is made of them once Doxygen has written them."""

import glob
import html
import html.parser
import json
import os
import re

import sources

# What is drawn takes its colours from the reader's choice of light or dark, so that dot only sets the lines.
DOT_STYLE = ("-Gbgcolor=transparent", "-Gfontname=Helvetica", "-Gfontsize=12", "-Gpad=0.1", "-Gstyle=rounded",
             "-Nfontname=Helvetica", "-Nfontsize=12", "-Nshape=box", "-Nstyle=filled", "-Nmargin=0.16,0.09",
             "-Efontname=Helvetica", "-Efontsize=11", "-Earrowsize=0.7")

DIAGRAM_STYLE = """<style>
text { fill: #1f2328 } .node polygon, .node path { fill: #eef3fa; stroke: #5d7fa8 }
.node polyline, .cluster polygon, .cluster path { fill: none; stroke: #8c959f }
.edge path { stroke: #57606a } .edge polygon { fill: #57606a; stroke: #57606a } .edge text { fill: #57606a }
@media (prefers-color-scheme: dark) {
text { fill: #e2e6ea } .node polygon, .node path { fill: #1d2a3a; stroke: #6f95c4 }
.node polyline, .cluster polygon, .cluster path { stroke: #6e7681 }
.edge path { stroke: #9aa4ae } .edge polygon { fill: #9aa4ae; stroke: #9aa4ae } .edge text { fill: #9aa4ae }
}
</style>
"""


def style_diagram(svg):
    svg = re.sub(r"<title>.*?</title>\n?", "", svg, flags=re.S)
    svg = svg[svg.index("<svg"):]
    end = svg.index(">", svg.index("<svg")) + 1
    return svg[:end] + "\n" + DIAGRAM_STYLE + svg[end:]


# The frame.


def navigation():
    lines = ['<p class="chapter"><a href="index.html">What to read when</a></p>']
    for heading, pages in sources.chapters():
        lines.append(f'<p class="chapter">{html.escape(heading)}</p>\n<ul>')
        lines += [f'<li><a href="{page.label}.html">{html.escape(page.title)}</a></li>' for page in pages]
        lines.append("</ul>")
    lines.append('<p class="chapter">Reference</p>\n<ul>')
    lines.append('<li><a href="functions.html">All functions</a></li>')
    groups = sorted((group for group in sources.groups().values() if group.parent is None),
                    key=lambda group: (group.label != "types", group.title))
    for group in groups:
        lines.append(f'<li><a href="{group.file}">{html.escape(group.title)}</a>')
        inner = [other for other in sources.groups().values() if other.parent is group]
        if inner:
            lines.append("<ul>")
            lines += [f'<li><a href="{other.file}">{html.escape(other.title)}</a></li>' for other in inner]
            lines.append("</ul>")
        lines.append("</li>")
    lines.append("</ul>")
    return "\n".join(lines + cpp_navigation())


def cpp_navigation():
    """The classes of the C++ interface, where there is one."""
    classes = sources.classes()
    if not classes:
        return []
    lines = ['<p class="chapter">C++</p>', "<ul>", '<li><a href="namespaceqvopl.html">All of qvopl</a></li>']
    lines += [f'<li><a href="{address}">{name}</a></li>' for name, address in classes]
    return lines + ["</ul>"]


def cpp_namespace():
    """What the C++ interface says of itself, for the page of its namespace."""
    opening = re.match(r"/\*\n(.*?)\*/", sources.read(sources.CPP), re.S)[1]
    return f"/**\n * @namespace qvopl\n *\n{opening}*/\n"


def header():
    return sources.read("reference/header.html").replace("@NAVIGATION@", navigation()).replace(
        "@VERSION@", sources.version())


def list_of_functions():
    lines = ["# All functions {#functions}", ""]
    for group in sorted(sources.groups().values(), key=lambda group: group.title):
        functions = [function for function in sources.functions().values() if function.group is group]
        if not functions:
            continue
        lines += [f"## {group.title} {{#functions_{group.label}}}", "",
                  f"`{group.header}`, @ref {group.label} \"in full\"", "", "| function | what it does |", "|---|---|"]
        lines += [f"| @ref {function.name} | {in_a_cell(function.brief)} |" for function in functions]
        lines.append("")
    return "\n".join(lines)


def in_a_cell(text):
    text = text.replace("|", "\\|").replace("*", "\\*").replace("\\n", "\\\\n")
    return re.sub(r"\bOPL_\w+", lambda match: "#" + match[0] if match[0] in sources.names() else match[0], text)


# After Doxygen.

MEMBER = re.compile(r'<a id="(g?ga[0-9a-f]+)" name="[^"]*"></a>\s*(<h2 class="memtitle"><span class="permalink">)'
                    r'<a href="#[^"]*">[^<]*</a></span>(\w+)((?:\(\))?)')


def read(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


def write(path, text):
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)


PROTOTYPE = re.compile(r'<div class="memproto">((?:(?!<div class="memproto">).)*?)</div>(?=<div class="memdoc">)', re.S)
TEMPLATE = re.compile(r'<div class="memtemplate">\s*(.*?)</div>', re.S)
NAME = re.compile(r'<table class="memname">(.*?)</table>', re.S)
LABEL = re.compile(r'<span class="mlabel">(.*?)</span>')
CELL = re.compile(r'<td class="(memname|paramtype|paramname)">(.*?)</td>', re.S)


def write_prototype(match):
    """A declaration as it is written in C, an argument a line where there are several."""
    table = NAME.search(match[1])[1]
    cells = [(kind, text.replace("&#160;", " ").strip()) for kind, text in CELL.findall(table)]
    template = TEMPLATE.search(match[1])
    opening = (template[1].strip() + "\n" if template else "") + cells[0][1]
    arguments = []
    for kind, text in cells[1:]:
        if kind == "paramtype":
            arguments.append(text)
        else:
            name = re.sub(r"</?em>|,\s*$", "", text)
            if not arguments:
                arguments.append("")
            if not name:
                continue
            glue = "" if not arguments[-1] or arguments[-1].endswith("*") else " "
            arguments[-1] = f'{arguments[-1]}{glue}<span class="argument">{name}</span>'
    if not "".join(arguments):
        is_call = re.search(r"<td>\(</td>", table) is not None
        is_c = opening.split(" ")[-1] in sources.functions()
        text = opening + ("(" + ("void" if is_c else "") + ")" if is_call else "")
    elif len(arguments) == 1:
        text = f"{opening}({arguments[0]})"
    else:
        text = f"{opening}(\n    " + ",\n    ".join(arguments) + ")"
    labels = "".join(f'<span class="label">{label}</span>' for label in LABEL.findall(match[1]))
    return f'<pre class="prototype">{labels}{text}</pre>'


def write_enumerator(match):
    name = match[2]
    value = sources.values().get(name, "")
    return (f'<td class="fieldname"><a id="{match[1]}" name="{match[1]}"></a>{name}</td>'
            f'<td class="fieldvalue">{value}</td>')


def tidy(text):
    text = re.sub(r'\s*<a href="[^"]*">More\.\.\.</a>', "", text)
    text = re.sub(r'(<a id="[^"]*" name="[^"]*"></a>\s*)<h2 class="memtitle">(?:(?!</h2>).)*anonymous enum</h2>\s*'
                  r'<div class="memitem">\s*<div class="memproto">.*?</div><div class="memdoc">',
                  r'\1<div class="memitem"><div class="memdoc alone">', text, flags=re.S)
    text = re.sub(r'<div class="summary">.*?</div>|<div id="nav-path" class="navpath">.*?</div>', "", text, flags=re.S)
    # What would hide inherited members asks for a script that is not here.
    text = re.sub(r' onclick="javascript:toggleInherit[^"]*"|<img src="closed.png" alt="-"/>(?:&#160;)?', "", text)
    text = PROTOTYPE.sub(write_prototype, text)
    return re.sub(r'<td class="fieldname"><a id="([^"]*)" name="[^"]*"></a>(\w+)&#160;</td>', write_enumerator, text)


def name_anchors(directory):
    """Anchors of functions become the functions' names: they stay the same whatever is written above them."""
    anchors = {}
    paths = sorted(glob.glob(os.path.join(directory, "*.html")))
    texts = {path: read(path) for path in paths}
    for path, text in texts.items():
        for match in MEMBER.finditer(text):
            if match[3] in sources.names():
                anchors[match[1]] = match[3]
        for anchor, name in re.findall(r'<a id="(gga[0-9a-f]+)" name="[^"]*"></a>(\w+)', text):
            if name in sources.names():
                anchors[anchor] = name
    known = re.compile(r'(id="|name="|#|:)(g?ga[0-9a-f]{30,})(?=["\s])')
    for path, text in texts.items():
        text = tidy(text)
        text = known.sub(lambda match: match[1] + anchors.get(match[2], match[2]), text)
        # Tables may be wider than a small screen, and code too.
        text = re.sub(r'(<table class="(?:doxtable|markdownTable|params|retval|fieldtable|memberdecls)".*?</table>)',
                      r'<div class="scroll">\1</div>', text, flags=re.S)
        write(path, text)


def remove_unused(directory):
    """What no way leads to from the first page, such as what Doxygen brings for a frame that is not used here."""
    used = {"search-index.js"}
    ahead = ["index.html"]
    while ahead:
        name = ahead.pop()
        path = os.path.join(directory, name)
        if name in used or not os.path.exists(path):
            continue
        used.add(name)
        if name.endswith(".html"):
            ahead += re.findall(r'(?:src|href|data)="([^"#:]+)', read(path))
    for name in os.listdir(directory):
        if name not in used:
            os.remove(os.path.join(directory, name))


class Texts(html.parser.HTMLParser):
    """The text of a page, cut at its headings and members."""

    SKIPPED = ("script", "style", "nav", "header")

    def __init__(self):
        super().__init__()
        self.sections = []  # [anchor, heading, texts]
        self.title = ""
        self.skipping = 0
        self.in_title = False
        self.in_heading = 0
        self.anchor = ""

    def handle_starttag(self, tag, attributes):
        attributes = dict(attributes)
        if tag in self.SKIPPED:
            self.skipping += 1
        classes = (attributes.get("class") or "").split()
        if tag == "div" and "title" in classes:
            self.in_title = True
            self.sections.append(["", "", []])
        if tag == "div" and "ingroups" in classes:
            self.in_title = False
        if tag == "a" and attributes.get("id") and "anchor" in classes + ["anchor"] * (not attributes.get("href")):
            self.anchor = attributes["id"]
            if self.in_heading:
                self.sections[-1][0] = self.anchor
        if tag in ("h1", "h2", "h3") and not self.skipping and self.sections:
            self.in_heading = 1
            self.sections.append([self.anchor, "", []])

    def handle_endtag(self, tag):
        if tag in self.SKIPPED:
            self.skipping -= 1
        if tag == "div":
            self.in_title = False
        if tag in ("h1", "h2", "h3"):
            self.in_heading = 0

    def handle_data(self, data):
        if self.skipping or not self.sections:
            return
        if self.in_title:
            self.title += data
        elif self.in_heading:
            self.sections[-1][1] += data
        else:
            self.sections[-1][2].append(data)


def texts_of(path):
    parser = Texts()
    parser.feed(read(path))
    title = " ".join(parser.title.split())
    for anchor, heading, texts in parser.sections:
        heading = " ".join(heading.replace("\u25c6\xa0", "").split())
        yield title, anchor, heading, " ".join("".join(texts).split())


def introduced(sections):
    """Sections of which the first, that of the title, says what the next says where it has no text of its own."""
    sections = list(sections)
    title, anchor, _, text = sections[0]
    has_more = len(sections) > 1
    if has_more and (not text or not sections[1][2]):
        text = sections[1][3]
    if has_more and not sections[1][2]:
        del sections[1]
    return [(title, anchor, "", text), *sections[1:]]


def search_entries(directory):
    """[title, address, kind, text] for each function, code, guide's section and module."""
    for page in sources.pages().values():
        for title, anchor, heading, text in introduced(texts_of(os.path.join(directory, page.label + ".html"))):
            # The sections of a guide lie behind anchors that carry its name.
            name = f"{title}: {heading}" if heading else title
            yield [name, f"{page.label}.html" + (f"#{anchor}" if heading and anchor else ""), "guide", text]
    for group in sources.groups().values():
        kind = "module"
        for title, anchor, heading, text in introduced(texts_of(os.path.join(directory, group.file))):
            name = heading.rstrip("()")
            if not heading:
                yield [title, group.file, kind, text]
            elif name in sources.names():
                yield [name, f"{group.file}#{name}", "function" if heading.endswith("()") else "name", text]
    for name, address in sources.classes():
        for _, anchor, heading, text in introduced(texts_of(os.path.join(directory, address))):
            if not heading:
                yield [f"qvopl::{name}", address, "class", text]
            elif heading.split("(")[0].split(" ")[0] and re.search(r"\(\)|\[\d+/\d+\]", heading):
                yield [f"qvopl::{name}::{heading}", f"{address}#{anchor}", "class", text]
    for code, meaning in sources.enumerators().items():
        yield [code, f"{meaning[1].file}#{code}", "code" if "_E_" in code else "flag", meaning[0]]


def write_search_index(directory):
    entries = [entry[:3] + [entry[3][:4000]] for entry in search_entries(directory)]
    write(os.path.join(directory, "search-index.js"),
          "const searchIndex = " + json.dumps(entries, ensure_ascii=False, separators=(",", ":")) + ";\n")


def finish(output):
    directory = os.path.join(output, "html")
    name_anchors(directory)
    write_search_index(directory)
    remove_unused(directory)
