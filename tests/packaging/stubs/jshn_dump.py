"""json_dump of the jshn.sh stand-in: prints the fields kept in the
environment as one JSON object in jshn's spaced style."""
import json
import os
import sys

fields = []
for i in range(1, int(os.environ["_JSHN_N"]) + 1):
    kind, key, value = (os.environb[b"_JSHN_%s_%d" % (c, i)] for c in (b"T", b"K", b"V"))
    key, value = key.decode(), value.decode("utf-8", "surrogateescape")
    if kind == b"int":
        value = int(value)
    elif kind == b"boolean":
        value = value in ("1", "true")
    fields.append("%s: %s" % (json.dumps(key), json.dumps(value, ensure_ascii=False)))
out = "{ " + ", ".join(fields) + " }\n" if fields else "{ }\n"
sys.stdout.buffer.write(out.encode("utf-8", "surrogateescape"))
