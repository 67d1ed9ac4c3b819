#!/usr/bin/env python3
"""Writes the sample PDFs of examples/data/documents/.

A minimal PDF writer of our own: one page per document, the standard
Helvetica font with WinAnsiEncoding (so Latin-script languages with their
accents), text as lines. Run from the repository root; the output is
deterministic, so re-running it changes nothing.
"""
import os
import sys

DOCUMENTS = {
    "reports/annual-report-2025.pdf": [
        "Annual report 2025",
        "The lighthouse cooperative restored seventeen lanterns",
        "along the northern coast and trained twelve new keepers.",
    ],
    "informe-cosecha.pdf": [
        "Informe de la cosecha",
        "Las viñas de la ribera dieron uvas excelentes este año;",
        "la vendimia terminó en octubre con buen tiempo.",
    ],
    "lettre-bibliothèque.pdf": [
        "Lettre à Mathilde",
        "La bibliothèque municipale rouvre ses portes en mai,",
        "avec une salle de lecture entièrement rénovée.",
    ],
}


def escape(text):
    raw = text.encode("cp1252")
    out = bytearray()
    for b in raw:
        if b in b"()\\":
            out += b"\\" + bytes([b])
        else:
            out.append(b)
    return bytes(out)


def pdf(lines):
    content = bytearray(b"BT /F1 14 Tf 72 720 Td 18 TL\n")
    for line in lines:
        content += b"(" + escape(line) + b") Tj T*\n"
    content += b"ET\n"
    objects = [
        b"<< /Type /Catalog /Pages 2 0 R >>",
        b"<< /Type /Pages /Kids [3 0 R] /Count 1 >>",
        b"<< /Type /Page /Parent 2 0 R /MediaBox [0 0 612 792] "
        b"/Resources << /Font << /F1 4 0 R >> >> /Contents 5 0 R >>",
        b"<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica /Encoding /WinAnsiEncoding >>",
        b"<< /Length %d >>\nstream\n" % len(content) + bytes(content) + b"endstream",
    ]
    out = bytearray(b"%PDF-1.4\n%\xe2\xe3\xcf\xd3\n")
    offsets = []
    for number, body in enumerate(objects, start=1):
        offsets.append(len(out))
        out += b"%d 0 obj\n" % number + body + b"\nendobj\n"
    xref = len(out)
    out += b"xref\n0 %d\n0000000000 65535 f \n" % (len(objects) + 1)
    for offset in offsets:
        out += b"%010d 00000 n \n" % offset
    out += b"trailer\n<< /Size %d /Root 1 0 R >>\nstartxref\n%d\n%%%%EOF\n" % (len(objects) + 1, xref)
    return bytes(out)


def main():
    root = sys.argv[1] if len(sys.argv) > 1 else "examples/data/documents"
    for name, lines in DOCUMENTS.items():
        path = os.path.join(root, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as f:
            f.write(pdf(lines))
    # Damaged on purpose: a PDF header and nothing a reader can use.
    with open(os.path.join(root, "damaged-scan.pdf"), "wb") as f:
        f.write(b"%PDF-1.7\n1 0 obj << /Type /Catalog /Pages 9 0 R\n%% cut off here\n")


if __name__ == "__main__":
    main()
