#!/usr/bin/env python3
"""usage: pack_nupkg.py PACKAGE FOLDER: makes a NuGet package of a folder that is laid out like one.

The package is a ZIP file with two more files, which name the manifest and the types of the others.
"""
import pathlib
import sys
import zipfile

RELATIONSHIPS = """<?xml version="1.0" encoding="utf-8"?>
<Relationships xmlns="http://schemas.openxmlformats.org/package/2006/relationships">
  <Relationship Id="manifest" Target="/{}" Type="http://schemas.microsoft.com/packaging/2010/07/manifest" />
</Relationships>
"""
TYPES = """<?xml version="1.0" encoding="utf-8"?>
<Types xmlns="http://schemas.openxmlformats.org/package/2006/content-types">
  <Default Extension="rels" ContentType="application/vnd.openxmlformats-package.relationships+xml" />
{}</Types>
"""
TYPE = '  <Default Extension="{}" ContentType="application/octet" />\n'


def main(package, folder):
    folder = pathlib.Path(folder)
    files = sorted(path for path in folder.rglob("*") if path.is_file())
    (manifest,) = folder.glob("*.nuspec")
    extensions = sorted({path.suffix[1:] for path in files})
    with zipfile.ZipFile(package, "w", zipfile.ZIP_DEFLATED) as archive:
        archive.writestr("_rels/.rels", RELATIONSHIPS.format(manifest.name))
        archive.writestr("[Content_Types].xml", TYPES.format("".join(map(TYPE.format, extensions))))
        for path in files:
            archive.write(path, path.relative_to(folder))


main(*sys.argv[1:])
