"""Manual pages of section 3, one for each function, out of Doxygen's XML."""

import glob
import os
import re
import xml.etree.ElementTree as ElementTree

import sources

MANUAL = "QVOPL"


def escape(text):
    return text.replace("\\", "\\e").replace("-", "\\-").replace("'", "\\(aq").replace("\xa0", "\\ ")


def prose(text):
    """Hyphens between words stay hyphens."""
    text = re.sub(r"(?<=[a-z])-(?=[a-z])", "\0", text)
    return escape(text).replace("\0", "-")


def line(text):
    """No line of text may open as a request does."""
    text = text.strip()
    return "\\&" + text if text.startswith((".", "'")) else text


def words(element):
    """The text of an element with its fonts, on one line."""
    parts = [prose(re.sub(r"\s+", " ", element.text or ""))]
    for child in element:
        inner = words(child)
        if child.tag == "ref" and inner.replace("\\-", "-") in sources.functions():
            parts.append(f"\\fB{inner}\\fP(3)")
        elif child.tag in ("ref", "computeroutput", "bold"):
            parts.append(f"\\fB{inner}\\fP" if inner.strip() else inner)
        elif child.tag == "emphasis":
            parts.append(f"\\fI{inner}\\fP")
        elif child.tag == "linebreak":
            parts.append("\n.br\n")
        elif child.tag in ("parameterlist", "simplesect", "itemizedlist", "orderedlist", "verbatim", "para"):
            pass
        else:
            parts.append(inner)
        parts.append(prose(re.sub(r"\s+", " ", child.tail or "")))
    return "".join(parts)


def lines_of(text):
    return "\n".join(line(part) if not part.startswith(".br") else part for part in text.split("\n") if part.strip())


def paragraphs(description):
    """Requests for a description, without its sections."""
    out = []
    for para in description.iter("para") if description.tag != "para" else [description]:
        if para.find("parameterlist") is None and para.find("simplesect") is None and is_inside_list(description, para):
            continue
        text = lines_of(words(para))
        if text:
            out += [".PP", text]
        for child in para:
            if child.tag == "verbatim":
                # Its last line stands before the end of the comment.
                code = re.sub(r"^\s*\*( |$)", "", child.text, flags=re.M).strip("\n").rstrip()
                rows = "\n".join("\\&" + escape(row) for row in code.split("\n"))
                out += [".PP", ".nf", ".ft CR", rows, ".ft", ".fi"]
            elif child.tag in ("itemizedlist", "orderedlist"):
                for number, item in enumerate(child.findall("listitem"), 1):
                    mark = "\\(bu" if child.tag == "itemizedlist" else f"{number}."
                    out += [f".IP {mark} 3", *(lines_of(words(inner)) for inner in item.findall("para"))]
    return out


def is_inside_list(description, para):
    return any(para in list(item) or para in item.iter("para") for kind in ("listitem", "parameterlist", "simplesect")
               for item in description.iter(kind))


def table(member, kind):
    rows = []
    for entries in member.findall(f"detaileddescription//parameterlist[@kind='{kind}']/parameteritem"):
        names = ["".join(name.itertext()) for name in entries.findall("parameternamelist/parametername")]
        text = "\n".join(lines_of(words(para)) for para in entries.findall("parameterdescription/para"))
        rows.append((", ".join(names), text))
    return rows


def section(member, kind):
    found = []
    for sect in member.findall(f"detaileddescription//simplesect[@kind='{kind}']"):
        title = sect.find("title")
        found.append(("".join(title.itertext()) if title is not None else "",
                      "\n".join(lines_of(words(para)) for para in sect.findall("para"))))
    return found


def declaration(member):
    kind = "".join(member.find("type").itertext())
    kind = re.sub(r"\s*\*", " *", kind)
    arguments = []
    for param in member.findall("param"):
        name = param.findtext("declname") or ""
        made = "".join(param.find("type").itertext())
        if "(*" in made:
            arguments.append(re.sub(r"(\w)\(\*\s*\)", rf"\1 (*{name})", made) + (param.findtext("array") or ""))
        else:
            made = re.sub(r"\s*(\*+)\s*$", r" \1", made)
            glue = "" if made.endswith("*") else " "
            arguments.append((made + glue + name).strip() + (param.findtext("array") or ""))
    if not arguments:
        arguments = ["void"]
    opening = f"{kind}{'' if kind.endswith('*') else ' '}{member.findtext('name')}("
    rows, row = [], opening
    for number, argument in enumerate(arguments):
        piece = argument + ("," if number < len(arguments) - 1 else ");")
        if len(row) + len(piece) > 76 and row != opening:
            rows.append(row.rstrip())
            row = " " * 4
        row += piece + " "
    rows.append(row.rstrip())
    return rows


def page(member):
    name = member.findtext("name")
    function = sources.functions()[name]
    brief = re.sub(r"\s+", " ", "".join(member.find("briefdescription").itertext())).strip().rstrip(".")
    first = brief.split(" ")[0]
    if not (first.isupper() or "_" in first or first.startswith("OPL")):
        brief = brief[0].lower() + brief[1:]
    out = [f'.TH {name} 3 "" "{MANUAL} {sources.version()}" "{MANUAL} {function.group.title}"',
           ".nh", ".ad l", ".SH NAME", f"{name} \\- {prose(brief)}",
           ".SH SYNOPSIS", ".nf", f"\\fB#include \"{function.header}\"\\fP", ".PP"]
    out += [f"\\fB{escape(row)}\\fP" for row in declaration(member)]
    out += [".fi", ".PP", "Link with \\fB\\-lqvopl\\fP."]
    text = paragraphs(member.find("detaileddescription"))
    out += [".SH DESCRIPTION", lines_of(words(member.find("briefdescription/para"))), *text]
    if rows := table(member, "param"):
        out.append(".SH ARGUMENTS")
        for names, meaning in rows:
            out += [".TP", f"\\fI{escape(names)}\\fP", meaning or "\\&"]
    returns, values = section(member, "return"), table(member, "retval")
    if returns or values:
        out.append(".SH RETURN VALUE")
        for _, meaning in returns:
            out += [meaning[0].upper() + meaning[1:] + ("" if meaning.endswith(".") else ".")]
        for names, meaning in values:
            out += [".TP", f"\\fB{escape(names)}\\fP", meaning or "\\&"]
    for title, meaning in section(member, "par"):
        out += [f".SH {title.strip().upper()}", meaning]
    others = [other.name for other in sources.functions().values() if other.group is function.group
              and other.name != name]
    if others:
        out.append(".SH SEE ALSO")
        out += [f".BR {other} (3)" + ("," if number < len(others) - 1 else "") for number, other in enumerate(others)]
    return "\n".join(out) + "\n"


def overview():
    """qvopl.3: the modules with their functions."""
    out = [f'.TH qvopl 3 "" "{MANUAL} {sources.version()}" "{MANUAL}"', ".SH NAME",
           "qvopl \\- the operating-system layer of a product of many processes",
           ".SH SYNOPSIS", ".nf", "\\fBcc ... \\-lqvopl\\fP", ".fi", ".SH DESCRIPTION",
           "Named mutexes, read-write locks, events and memory that the processes of an instance share, and",
           "sockets, threads, signals, processes, files and servers beside them.",
           "Each function returns a result code; a failure leaves a message in the calling thread's error record,",
           "which \\fBOPL_ErrMessageGet\\fP(3) tells.",
           "A program begins with \\fBOPL_InitBegin\\fP(3) and ends with \\fBOPL_InitEnd\\fP(3)."]
    for group in sources.groups().values():
        functions = [function for function in sources.functions().values() if function.group is group]
        if not functions:
            continue
        out += [f".SS {group.title}, {group.header}"]
        out += [".PD 0"]
        for function in functions:
            out += [".TP 4", f".BR {function.name} (3)", line(prose(function.brief))]
        out += [".PD"]
    return "\n".join(out) + "\n"


def members(directory):
    seen = set()
    for path in sorted(glob.glob(os.path.join(directory, "group__*.xml"))):
        for member in ElementTree.parse(path).getroot().iter("memberdef"):
            if member.get("id") not in seen:
                seen.add(member.get("id"))
                yield member


def undocumented(directory):
    """What Doxygen lets pass: enumerators and fields without a word, and functions that are in no group."""
    problems = []
    found = set()
    for member in members(directory):
        found.add(member.findtext("name"))
        for value in member.findall("enumvalue"):
            if not "".join(value.find("briefdescription").itertext()).strip() and not "".join(
                    value.find("detaileddescription").itertext()).strip():
                place = member.find("location")
                problems.append(f"{place.get('file')}:{place.get('line')}: {value.findtext('name')} is not documented")
        if member.get("kind") == "function" and "May be called" not in "".join(
                member.find("detaileddescription").itertext()):
            place = member.find("location")
            problems.append(f"{place.get('file')}:{place.get('line')}: neither {member.findtext('name')} nor its group "
                            "has a @callable")
    problems += [f"include/{function.header}: {name} is in no group" for name, function in sources.functions().items()
                 if name not in found]
    return problems


def write_all(directory, output):
    os.makedirs(output)
    count = 0
    for member in members(directory):
        if member.get("kind") != "function" or member.findtext("name") not in sources.functions():
            continue
        with open(os.path.join(output, member.findtext("name") + ".3"), "w", encoding="utf-8") as file:
            file.write(page(member))
        count += 1
    with open(os.path.join(output, "qvopl.3"), "w", encoding="utf-8") as file:
        file.write(overview())
    return count + 1
