"""Writes the NuGet package from an install of the runtime component: a zip
in the Open Packaging layout NuGet clients read, with

    Velmora.nuspec                                 bindings/dotnet/Velmora.package.xml, versioned
    lib/netstandard2.0/Velmora.dll, Velmora.xml    the binding and its documentation
    runtimes/linux-x64/native/                     the library and its runtime folder

Debian's `nuget pack` makes the same layout but takes a quarter of an hour
over the runtime folder; this takes a minute.
    python nupkg.py PREFIX NUSPEC VERSION OUT.nupkg"""
import sys
import zipfile
from pathlib import Path

prefix, nuspec, version, out = Path(sys.argv[1]), Path(sys.argv[2]), sys.argv[3], Path(sys.argv[4])
lib = prefix / "lib"
files = {f"lib/netstandard2.0/{name}": lib / name for name in ("Velmora.dll", "Velmora.xml")}
native = "runtimes/linux-x64/native"
files[f"{native}/Tarvik.Velmora.Framework.OpenVINOBindings.so"] = lib / "Tarvik.Velmora.Framework.OpenVINOBindings.so"
for path in sorted((lib / "velmora-runtime").rglob("*")):
    if path.is_file():
        files[f"{native}/{path.relative_to(lib).as_posix()}"] = path
missing = [str(path) for path in files.values() if not path.is_file()]
if missing:
    sys.exit(f"nupkg.py: missing from the install: {', '.join(missing)}")

content_types = """<?xml version="1.0" encoding="utf-8"?>
<Types xmlns="http://schemas.openxmlformats.org/package/2006/content-types">
  <Default Extension="rels" ContentType="application/vnd.openxmlformats-package.relationships+xml" />
  <Default Extension="nuspec" ContentType="application/octet" />
  <Default Extension="psmdcp" ContentType="application/vnd.openxmlformats-package.core-properties+xml" />
  <Override PartName="/" ContentType="application/octet" />
</Types>"""
rels = """<?xml version="1.0" encoding="utf-8"?>
<Relationships xmlns="http://schemas.openxmlformats.org/package/2006/relationships">
  <Relationship Type="http://schemas.microsoft.com/packaging/2010/07/manifest" Target="/Velmora.nuspec" Id="Rnuspec" />
</Relationships>"""

# Every part needs a content type: one default per file extension, and an
# override for each file that has none.
extensions = {Path(name).suffix.lstrip(".") for name in files} - {"", "rels", "nuspec", "psmdcp"}
types = "".join(f'  <Default Extension="{ext}" ContentType="application/octet" />\n' for ext in sorted(extensions))
types += "".join(f'  <Override PartName="/{name}" ContentType="application/octet" />\n'
                 for name in files if not Path(name).suffix)
content_types = content_types.replace("  <Override", types + "  <Override")

out.parent.mkdir(parents=True, exist_ok=True)
with zipfile.ZipFile(out, "w", zipfile.ZIP_DEFLATED, compresslevel=6) as package:
    package.writestr("[Content_Types].xml", content_types)
    package.writestr("_rels/.rels", rels)
    package.writestr("Velmora.nuspec", nuspec.read_text().replace("@VERSION@", version))
    for name, path in files.items():
        package.write(path, name)
