#!/usr/bin/env python3
"""Makes the reference (reStructuredText) and the manual pages (mdoc) from Doxygen's XML.

Usage: reference.py XML-DIRECTORY REFERENCE-DIRECTORY MANUAL-DIRECTORY
"""
import copy
import datetime
import os
import pathlib
import re
import sys
import textwrap
import xml.etree.ElementTree as xml

# Chapters of the reference, each with what the names of its functions match; the first one counts.
CHAPTERS = [
    ("firmware", "Firmware", r"_load_firmware|_fx2_|_dfu_"),
    ("stream", "Data stream", r"_data_stream_"),
    ("events", "Event pipe", r"_event_pipe_"),
    ("transfers", "Transfers", r"_transfer$|_read$|_write$"),
    ("device", "Opened devices", r"_open$|_close$|_get_.*(driver|descriptor|packet)"),
    ("list", "Device list", r"_device_list"),
    ("library", "Library", r"_init$|_fini$|_version$|_status_str$"),
]


def children(node, path):
    return [] if node is None else node.findall(path)


def words(node):
    """The text of a node, markup left out."""
    return re.sub(r"\s+", " ", "".join(node.itertext())).strip()


class Header:
    """What Doxygen has read from the public header."""

    def __init__(self, directory):
        self.files = [xml.parse(file).getroot()
                      for file in sorted(pathlib.Path(directory).glob("vexa__usb*.xml"))]
        self.structs = [xml.parse(file).getroot().find("compounddef")
                        for file in sorted(pathlib.Path(directory).glob("struct*.xml"))]
        members = [member for file in self.files for member in file.iter("memberdef")]
        self.functions = [member for member in members if member.get("kind") == "function"]
        self.typedefs = [member for member in members if member.get("kind") == "typedef"]
        self.kinds = {struct.get("id"): "struct" for struct in self.structs}
        self.kinds.update({member.get("id"): member.get("kind") for member in members})
        self.constants = self.read_constants(members)
        self.introduction = next(node for file in self.files
                                 for node in file.findall("compounddef/detaileddescription")
                                 if len(node))
        self.statuses = {value: name for _, blocks in self.constants
                         for _, entries in blocks for name, value, _ in entries
                         if name.startswith("VEXA_USB_STATUS_")}

    def read_constants(self, members):
        """Groups of constants: title, and for each enumeration or macro itself (an enumeration's
        node, else None) and (name, value, description)s."""
        groups = {}
        titles = {id(member): section.findtext("header") or "Others"
                  for file in self.files for section in file.iter("sectiondef")
                  for member in section.findall("memberdef")}
        for member in members:
            is_macro = member.get("kind") == "define"
            constants = [(entry.findtext("name"), value, Description(entry))
                         for entry in ([member] if is_macro else member.findall("enumvalue"))
                         if (value := (entry.findtext("initializer") or "").strip("=() "))
                         and entry.findtext("name") != "VEXA_USB_API"]
            if constants:
                self.kinds.update({entry.get("id"): "enumvalue"
                                   for entry in member.findall("enumvalue")})
                groups.setdefault(titles[id(member)], []).append(
                    (None if is_macro else member, constants))
        return list(groups.items())

    def chapter_of(self, name):
        found = [chapter for chapter in CHAPTERS if re.search(chapter[2], name)]
        if not found:
            sys.exit(f"reference.py: {name} is in no chapter; add it to CHAPTERS")
        return found[0]

    def names_in(self, chapter):
        return [function.findtext("name") for function in self.functions
                if self.chapter_of(function.findtext("name")) == chapter]


class Description:
    """The comment of one declaration, taken apart."""

    def __init__(self, member):
        self.paragraphs, self.parameters, self.results, self.returned = [], [], [], None
        for part in ("briefdescription", "detaileddescription"):
            for paragraph in children(member.find(part), "para"):
                self.take(copy.deepcopy(paragraph))

    def take(self, paragraph):
        for listed in paragraph.findall("parameterlist"):
            into = self.parameters if listed.get("kind") == "param" else self.results
            for item in listed.findall("parameteritem"):
                name = item.find("parameternamelist/parametername")
                into.append((name.text, name.get("direction"),
                             item.find("parameterdescription/para")))
            paragraph.remove(listed)
        for section in paragraph.findall("simplesect"):
            if section.get("kind") == "return":
                self.returned = section.find("para")
            else:
                self.paragraphs.extend(section.findall("para"))
            paragraph.remove(section)
        if words(paragraph):
            self.paragraphs.append(paragraph)

    def summary(self):
        """The first sentence, as a phrase."""
        first = words((self.paragraphs or [self.returned])[0])
        first = re.split(r"[.:;](?:\s|$)", first)[0]
        return first if re.match(r"[A-Z]{2}", first) else first[0].lower() + first[1:]


def declaration(function):
    kind = words(function.find("type"))
    space = "" if kind.endswith("*") else " "
    return f"{kind}{space}{function.findtext('name')}{function.findtext('argsstring')}"


class Reference:
    """Writes the pages of the HTML reference."""

    ROLES = {"function": "func", "define": "macro", "typedef": "type", "struct": "struct",
             "enum": "enum", "enumvalue": "enumerator"}

    def __init__(self, header):
        self.header = header

    def inline(self, node):
        result = self.escape(node.text)
        for child in node:
            result += self.markup(child) + self.escape(child.tail)
        return re.sub(r"[ \n]+", " ", result).strip()

    @staticmethod
    def escape(text):
        return re.sub(r"([\\*`_|])", r"\\\1", text or "")

    def markup(self, node):
        text = words(node)
        role = self.ROLES.get(self.header.kinds.get(node.get("refid")))
        if role:
            return f":c:{role}:`{text.removesuffix('()')}`"
        if node.tag == "computeroutput":
            return f"``{text}``"
        if node.tag == "itemizedlist":
            return ""  # stands behind its paragraph
        marks = {"bold": "**", "emphasis": "*"}.get(node.tag, "")
        return f"{marks}{self.escape(text)}{marks}"

    def paragraphs(self, nodes, indent):
        result = ""
        for node in nodes:
            result += f"{indent}{self.inline(node)}\n\n"
            for item in node.findall("itemizedlist/listitem/para"):
                result += f"{indent}* {self.inline(item)}\n"
            result += "\n"
        return result

    def function(self, member):
        about = Description(member)
        text = f".. c:function:: {declaration(member)}\n\n"
        text += self.paragraphs(about.paragraphs, "   ")
        for name, _, what in about.parameters:
            text += f"   :param {name}: {self.inline(what)}\n"
        if about.returned is not None:
            text += f"   :returns: {self.inline(about.returned)}\n"
        if about.results:
            text += "   :Answers:\n"
        for value, _, what in about.results:
            label = value.replace("-", "minus-")
            text += f"      * :ref:`{value} <status-{label}>`: {self.inline(what)}\n"
        return text + "\n"

    def types(self):
        text = ""
        for struct in self.header.structs:
            text += f".. c:struct:: {struct.findtext('compoundname')}\n\n"
            text += self.paragraphs(Description(struct).paragraphs, "   ")
            for field in struct.iter("memberdef"):
                name = field.findtext("name") + field.findtext("argsstring")
                text += f"   .. c:member:: {words(field.find('type'))} {name}\n\n"
                text += self.paragraphs(Description(field).paragraphs, "      ")
        for typedef in self.header.typedefs:
            text += self.typedef(typedef)
        return text

    def typedef(self, typedef):
        about = Description(typedef)
        name = typedef.findtext("name")
        definition = words(typedef.find("definition")).removeprefix("typedef ").replace("(* ", "(*")
        shown = name if definition.startswith("struct") else definition.replace(") (", ")(")
        text = f".. c:type:: {shown}\n\n" + self.paragraphs(about.paragraphs, "   ")
        for parameter, _, what in about.parameters:
            text += f"   :param {parameter}: {self.inline(what)}\n"
        return text + "\n"

    def constants(self, enumeration, entries):
        text, kind, indent = "", "macro", "   "
        if enumeration is not None:
            text = f".. c:enum:: {enumeration.findtext('name')}\n\n"
            text += self.paragraphs(Description(enumeration).paragraphs, indent)
            kind = "enumerator"
        for name, value, about in entries:
            # What the build chooses has no value here.
            shown = f"``{value}``: " if "@" not in value else ""
            text += f".. c:{kind}:: {name}\n\n"
            text += self.paragraphs(about.paragraphs, indent).replace(indent, indent + shown, 1)
        return text

    @staticmethod
    def title(text, mark):
        return f"{text}\n{mark * len(text)}\n\n"

    def write(self, directory):
        directory.mkdir(parents=True, exist_ok=True)
        chapters = list(reversed(CHAPTERS))
        index = self.title("Reference", "=")
        index += "The functions of ``vexa_usb.h``. Each has a manual page, too: "
        index += "``man vexa_usb_open``.\n\n"
        index += ".. toctree::\n\n" + "".join(f"   {chapter[0]}\n" for chapter in chapters)
        index += "   types\n   constants\n\n" + self.title("What holds for all of them", "-")
        index += self.paragraphs(self.header.introduction.findall("para"), "")
        (directory / "index.rst").write_text(index)
        for chapter in chapters:
            page = self.title(chapter[1], "=")
            for function in self.header.functions:
                if self.header.chapter_of(function.findtext("name")) == chapter:
                    page += self.function(function)
            (directory / f"{chapter[0]}.rst").write_text(page)
        (directory / "types.rst").write_text(
            self.title("Types and records", "=") + self.types())
        page = self.title("Constants", "=")
        for title, blocks in self.header.constants:
            page += self.title(title, "-")
            page += "".join(self.constants(*block) for block in blocks)
        (directory / "constants.rst").write_text(page)


class Manual:
    """Writes the manual pages, in mdoc(7)."""

    WIDTH = 78  # mdoc's lint wants lines of 80 characters at most
    # Between sentences, and around functions that are not the library's.
    BREAKS = re.compile(r"(?<=[.?!])\s+|\s(?=\w+\(\))|(?<=\(\))\s|(?<=\(\),)\s")

    def __init__(self, header):
        self.header = header
        now = int(os.environ.get("SOURCE_DATE_EPOCH", datetime.datetime.now().timestamp()))
        date = datetime.datetime.fromtimestamp(now, datetime.timezone.utc)
        self.date = f"{date:%B} {date.day}, {date.year}"
        self.page = ""       # the function that the page is about
        self.arguments = ()  # and the names of its parameters

    def text(self, text):
        """Running text: each sentence on a line of its own, as mdoc wants it."""
        text = re.sub(r"(?<!\w)-(?=\d)", r"\\-", text.replace("\\", "\\e"))
        lines = []
        for sentence in self.BREAKS.split(text.strip()):
            if function := re.fullmatch(r"(\w+)\(\)([.,]?)", sentence):
                lines.append(f".Fn {' '.join(function.groups())}".rstrip())
                continue
            lines += textwrap.wrap(sentence, self.WIDTH, break_long_words=False,
                                   break_on_hyphens=False)
        return [line if line.startswith(".Fn") else re.sub(r"^(?=[.'])", r"\\&", line)
                for line in lines]

    def macro(self, node):
        text = words(node).replace("\\", "\\e")
        kind = self.header.kinds.get(node.get("refid")) if node.tag == "ref" else None
        if kind == "function":
            name = text.removesuffix("()")
            return f"Fn {name}" if name == self.page else f"Xr {name} 3"
        if kind in ("define", "enumvalue"):
            return f"Dv {text}"
        if kind:
            return f"Vt {text}"
        if node.tag == "computeroutput":
            return f"Fa {text}" if text in self.arguments else f'Ql "{text}"'
        plain = text.rstrip(".")
        closing = " ." * (len(text) - len(plain))
        return f'Sy "{plain}"{closing}' if node.tag == "bold" else f'Em "{plain}"{closing}'

    def inline(self, node):
        """The lines of a paragraph; macros stand on lines of their own."""
        lines = []
        tail = node.text or ""
        for child in node:
            opening = re.search(r"\(+$", tail)
            lines += self.text(tail[:opening.start()] if opening else tail)
            if child.tag == "itemizedlist":
                lines += [".Bl -bullet"]
                for item in child.findall("listitem/para"):
                    lines += [".It"] + self.inline(item)
                lines += [".El"]
                tail = child.tail or ""
                continue
            macro = self.macro(child)
            if opening:
                name, rest = macro.split(" ", 1)
                macro = f"{name} {' '.join(opening.group())} {rest}"
            tail = child.tail or ""
            closing = re.match(r"[.,;:)?!]*(?=\s|$)", tail).group() if tail else ""
            tail = tail[len(closing):]
            attached = re.match(r"\S+", tail)
            if attached:
                macro += f" Ns {attached.group()}"
                tail = tail[attached.end():]
            lines.append(f".{macro}{''.join(' ' + mark for mark in closing)}")
        return lines + self.text(tail)

    def paragraphs(self, nodes):
        lines = []
        for number, node in enumerate(nodes):
            lines += ([".Pp"] if number else []) + self.inline(node)
        return lines

    def head(self, name, summary):
        return [f".Dd {self.date}", f".Dt {name.upper()} 3", ".Os",
                ".Sh NAME", f".Nm {name}", *(f".Nd {line}" if not number else line for number, line
                                             in enumerate(textwrap.wrap(summary, 70))),
                ".Sh LIBRARY", "libvexa\\-usb (pkg\\-config name: vexa\\-usb)",
                ".Sh SYNOPSIS", ".In vexa_usb.h"]

    @staticmethod
    def references(names):
        names = [f".Xr {name}" for name in names]
        return [".Sh SEE ALSO", *(f"{name} ," for name in names[:-1]), names[-1]]

    def function(self, member):
        name = self.page = member.findtext("name")
        about = Description(member)
        self.arguments = [item[0] for item in about.parameters]
        lines = self.head(name, about.summary())
        lines += [f".Ft {words(member.find('type'))}", f".Fo {name}"]
        for parameter in member.findall("param"):
            kind = words(parameter.find("type"))
            space = "" if kind.endswith("*") else " "
            lines.append(f'.Fa "{kind}{space}{parameter.findtext("declname") or ""}"')
        lines[-1] = lines[-1].replace('"void "', "void")
        lines += [".Fc", ".Sh DESCRIPTION"]
        lines += self.paragraphs(about.paragraphs) or ["Gives", *self.inline(about.returned)]
        if about.parameters:
            lines += [".Sh PARAMETERS", ".Bl -tag -width Ds"]
            for parameter, direction, what in about.parameters:
                mark = " Pq out" if direction == "out" else ""
                lines += [f".It Fa {parameter}{mark}", *self.inline(what)]
            lines += [".El"]
        lines += self.results(about)
        others = [other for other in self.header.names_in(self.header.chapter_of(name))
                  if other != name]
        return lines + self.references(
            ["vexa-usb 1"] + [f"{other} 3" for other in sorted(others + ["vexa_usb"])])

    def results(self, about):
        if about.returned is not None:
            first, *rest = self.inline(about.returned)
            return [".Sh RETURN VALUES", first[0].upper() + first[1:], *rest]
        if not about.results:
            return [".Sh RETURN VALUES", "None."]
        lines = [".Sh RETURN VALUES", ".Bl -tag -width Ds"]
        for value, _, what in about.results:
            number = value.replace("-", "\\-")
            lines += [f".It Dv {self.header.statuses[value]} Pq {number}", *self.inline(what)]
        return lines + [".El"]

    def overview(self):
        self.page = "vexa_usb"
        self.arguments = ()
        lines = self.head("vexa_usb", "access to a family of USB instruments")
        lines += [".Sh DESCRIPTION"]
        lines += self.paragraphs(self.header.introduction.findall("para"))
        for chapter in reversed(CHAPTERS):
            lines += [f".Ss {chapter[1]}", ".Bl -tag -width Ds"]
            for function in self.header.functions:
                if self.header.chapter_of(function.findtext("name")) == chapter:
                    lines += [f".It Xr {function.findtext('name')} 3",
                              *self.text(Description(function).summary())]
            lines += [".El"]
        return lines + self.references(["vexa-usb 1", "vexa-usb-sim 1"])

    def write(self, directory):
        directory.mkdir(parents=True, exist_ok=True)
        pages = {"vexa_usb": self.overview()}
        for function in self.header.functions:
            pages[function.findtext("name")] = self.function(function)
        for name, lines in pages.items():
            (directory / f"{name}.3").write_text("\n".join(lines) + "\n")


def main():
    directory, reference, manual = sys.argv[1:]
    header = Header(directory)
    Manual(header).write(pathlib.Path(manual))
    Reference(header).write(pathlib.Path(reference))


if __name__ == "__main__":
    main()
