#!/usr/bin/env python3
"""Keeps the section-3 pages (doc/man3/*.3) tied to the headers and libraries.

  man3.py synopsis --include DIR PAGE...   each page's NAME line and SYNOPSIS
      declarations against the exported declarations of the header it includes
  man3.py names --cmake CMAKE --build-dir DIR --prefix DIR --nm NM --include DIR
      installs the build into a scratch prefix and compares the names exported
      by libvobrel.so and libvobrel_platform.so with the installed pages
  man3.py extract PAGE OUT.c          the EXAMPLES program, unescaped
  man3.py run PROGRAM DIR             runs PROGRAM in a fresh DIR; must exit 0

Every failure names what differs, grouped by header."""
import glob
import gzip
import os
import re
import shutil
import subprocess
import sys

# Linker and toolchain symbols that no page documents.
LINKER_NAMES = {"_init", "_fini", "_edata", "_end", "__bss_start"}


def sections(page_text):
    """{section name: [lines]} of a roff page."""
    result, current = {}, None
    for line in page_text.splitlines():
        m = re.match(r'\.SH\s+"?([^"]*)"?\s*$', line)
        if m:
            current = m.group(1).strip()
            result[current] = []
        elif current is not None:
            result[current].append(line)
    return result


def name_line_names(page_text):
    lines = [l for l in sections(page_text).get("NAME", []) if l.strip()]
    if not lines or " \\- " not in lines[0]:
        return None
    return [n.strip() for n in lines[0].split(" \\- ")[0].split(",") if n.strip()]


def normalise(decl):
    """One spelling per declaration: single spaces only between words."""
    decl = re.sub(r"__attribute__\s*\(\((?:[^()]|\([^()]*\))*\)\)", " ", decl)
    decl = re.sub(r"\s+", " ", decl).strip()
    decl = re.sub(r"\s*([(),*\[\];])\s*", r"\1", decl)
    return decl


def declared_name(decl):
    """The name a normalised declaration declares (function or variable)."""
    m = re.match(r"[^(]*?([A-Za-z_]\w*)\(", decl)
    if m and not decl.startswith("extern"):
        return m.group(1)
    m = re.search(r"([A-Za-z_]\w*)(\[[^\]]*\])*;$", decl)
    return m.group(1) if m else None


def header_declarations(path):
    """{name: normalised declaration} of the header's VOBREL_API names."""
    with open(path, encoding="utf-8") as f:
        text = f.read()
    text = re.sub(r"/\*.*?\*/", " ", text, flags=re.S)
    text = re.sub(r"//[^\n]*", " ", text)
    text = "\n".join(l for l in text.splitlines() if not l.lstrip().startswith("#"))
    decls = {}
    for stmt in re.findall(r"VOBREL_API\s+([^;{]*;)", text):
        d = normalise(stmt)
        decls[declared_name(d)] = d
    return decls


def page_declarations(page_text):
    """(header file name, {name: normalised declaration}) from SYNOPSIS."""
    header, decls, pending = None, {}, ""
    for line in sections(page_text).get("SYNOPSIS", []):
        m = re.match(r"\.B\s+#include\s+<vobrel/([\w.]+)>", line)
        if m:
            header = header or m.group(1)
            continue
        if line.startswith(".") or not line.strip():
            continue
        pending += " " + line
        if line.rstrip().endswith(";"):
            d = normalise(pending)
            decls[declared_name(d)] = d
            pending = ""
    return header, decls


def check_synopsis(include_dir, pages):
    problems = []
    for page in pages:
        with open(page, encoding="utf-8") as f:
            text = f.read()
        base = os.path.basename(page)
        header, shown = page_declarations(text)
        if header is None:
            problems.append(f"{base}: SYNOPSIS has no '.B #include <vobrel/...>' line")
            continue
        wanted = header_declarations(os.path.join(include_dir, "vobrel", header))
        for name in sorted(wanted.keys() - shown.keys()):
            problems.append(f"{base}: SYNOPSIS lacks {header}'s\n    {wanted[name]}")
        for name in sorted(shown.keys() - wanted.keys()):
            problems.append(f"{base}: SYNOPSIS declares {name}, which {header} does not export")
        for name in sorted(shown.keys() & wanted.keys()):
            if shown[name] != wanted[name]:
                problems.append(f"{base}: SYNOPSIS of {name} differs from {header}\n"
                                f"    page:   {shown[name]}\n    header: {wanted[name]}")
        names = name_line_names(text)
        if names is None:
            problems.append(f"{base}: NAME is not one line 'name, name \\- text'")
        elif sorted(names) != sorted(wanted):
            missing = sorted(set(wanted) - set(names))
            extra = sorted(set(names) - set(wanted))
            problems.append(f"{base}: NAME differs from {header}'s exported names:"
                            f" missing {missing or 'none'}, not exported by it {extra or 'none'}")
    return problems


def exported_symbols(nm, library):
    out = subprocess.run([nm, "-D", "--defined-only", library], check=True,
                         capture_output=True, text=True).stdout
    names = set()
    for line in out.splitlines():
        fields = line.split()
        if len(fields) < 3 or fields[1] not in "TDBRWVGSiu":
            continue
        name = fields[2].split("@")[0]
        if name not in LINKER_NAMES and not name.startswith("_"):
            names.add(name)
    return names


def installed_pages(man3):
    """{page name: text} of every installed section-3 page, decompressed."""
    pages = {}
    for path in glob.glob(os.path.join(man3, "*.3*")):
        base = os.path.basename(path)
        opener = gzip.open if base.endswith(".gz") else open
        with opener(path, "rt", encoding="utf-8") as f:
            pages[re.sub(r"\.3(\.gz)?$", "", base)] = f.read()
    return pages


def man_finds(manpath, areas):
    """`man 3 NAME` shows the area's page, through its compressed link page."""
    problems = []
    env = dict(os.environ, MANPATH=manpath, MANWIDTH="80", MAN_KEEP_FORMATTING="")
    for area, text in sorted(areas.items()):
        name = (name_line_names(text) or [area])[-1]
        out = subprocess.run(["man", "3", name], env=env, capture_output=True, text=True)
        if out.returncode != 0 or not out.stdout.startswith(area.upper() + "(3)"):
            problems.append(f"man 3 {name} does not show {area}(3): {out.stderr.strip()}")
    return problems


def check_names(args):
    shutil.rmtree(args.prefix, ignore_errors=True)
    subprocess.run([args.cmake, "--install", args.build_dir, "--prefix", args.prefix],
                   check=True, stdout=subprocess.DEVNULL)
    exported = set()
    for lib in ("libvobrel.so", "libvobrel_platform.so"):
        found = glob.glob(os.path.join(args.prefix, "**", lib), recursive=True)
        if not found:
            return [f"{lib} is not installed under {args.prefix}"]
        exported |= exported_symbols(args.nm, found[0])
    man3 = os.path.join(args.prefix, "share", "man", "man3")
    pages = installed_pages(man3)
    areas = {n: t for n, t in pages.items() if not t.startswith(".so ")}
    documented = {}
    problems = []
    for area, text in sorted(areas.items()):
        for name in name_line_names(text) or []:
            documented[name] = area
            link = pages.get(name)
            if link is None or link.strip() != f".so man3/{area}.3":
                problems.append(f"{name}: no link page man3/{name}.3 to {area}.3")
    problems += man_finds(os.path.join(args.prefix, "share", "man"), areas)
    for name, text in sorted(pages.items()):
        if name not in areas and name not in documented:
            problems.append(f"{name}.3 ({text.strip()}) names no documented function")
    owner = {}
    for header in glob.glob(os.path.join(args.include, "vobrel", "*.h")):
        for name in header_declarations(header):
            owner[name] = os.path.basename(header)
    missing = {}
    for name in sorted(exported - documented.keys()):
        missing.setdefault(owner.get(name, "no public header"), []).append(name)
    for header, names in sorted(missing.items()):
        page = "vobrel_" + header[:-2] + ".3" if header.endswith(".h") else "a page"
        problems.append(f"exported without a page ({header}, to be named in {page}): {' '.join(names)}")
    for name in sorted(documented.keys() - exported):
        problems.append(f"{documented[name]}.3 names {name}, which neither library exports")
    return problems


def extract(page, out):
    with open(page, encoding="utf-8") as f:
        lines = sections(f.read()).get("EXAMPLES", [])
    if ".EX" not in lines or ".EE" not in lines:
        sys.exit(f"{page}: EXAMPLES has no .EX ... .EE program")
    body = lines[lines.index(".EX") + 1:lines.index(".EE")]
    raw = "\n".join(body)
    bad = re.findall(r"\\[^e-]", raw)
    if bad:
        sys.exit(f"{page}: EXAMPLES uses roff escapes other than \\e and \\-: {bad}")
    starts = [l for l in body if l.startswith((".", "'"))]
    if starts:
        sys.exit(f"{page}: EXAMPLES lines that roff takes for requests: {starts}")
    code = raw.replace("\\-", "-").replace("\\e", "\\")
    with open(out, "w", encoding="utf-8") as f:
        f.write(code + "\n")


def run(program, workdir):
    shutil.rmtree(workdir, ignore_errors=True)
    os.makedirs(workdir)
    rc = subprocess.run([program], cwd=workdir).returncode
    if rc != 0:
        sys.exit(f"{os.path.basename(program)} exited with status {rc}")


def main():
    import argparse
    p = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawTextHelpFormatter)
    sub = p.add_subparsers(dest="cmd", required=True)
    s = sub.add_parser("synopsis")
    s.add_argument("--include", required=True)
    s.add_argument("pages", nargs="+")
    n = sub.add_parser("names")
    for opt in ("--cmake", "--build-dir", "--prefix", "--nm", "--include"):
        n.add_argument(opt, required=True)
    e = sub.add_parser("extract")
    e.add_argument("page")
    e.add_argument("out")
    r = sub.add_parser("run")
    r.add_argument("program")
    r.add_argument("workdir")
    args = p.parse_args()
    if args.cmd == "extract":
        return extract(args.page, args.out)
    if args.cmd == "run":
        return run(args.program, args.workdir)
    problems = check_synopsis(args.include, args.pages) if args.cmd == "synopsis" else check_names(args)
    for line in problems:
        print(line)
    sys.exit(1 if problems else 0)


if __name__ == "__main__":
    main()
