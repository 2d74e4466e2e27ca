#!/usr/bin/env python3
"""Writes the metadata fixtures of this folder (FFmpeg files with tags,
chapters and a cover; hand-built files with the forms phones and 3GPP
writers use) and NAME.tags, what exiftool, ffprobe and mutagen read in each.

Normalisation, once: every tool's field goes to our key (the maps below);
text is compared as UTF-8 exactly, an empty value counts as not given; dates
as the instant in UTC ("2024-05-01T08:00:00Z", a local offset applied);
track and disc as "N/M"; exiftool runs with -n; a place as ISO 6709 text
of its numbers ("%+08.4f%+09.4f%+08.3f/"); a cover as its type and size;
chapters as start and end in seconds (3 decimals) and the title. Tools that
give one key must agree.
  make_meta.py [--check]   (needs ffmpeg, exiftool, python3-mutagen); --check
                           reads the files as they stand and compares
"""
import datetime, json, os, re, subprocess, sys
sys.dont_write_bytecode = True
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
from mp4atoms import atoms, box, full  # noqa: E402

FF = ["ffmpeg", "-v", "error", "-y", "-bitexact"]
SINE = ["-f", "lavfi", "-i", "sine=f=440:d=1:r=8000"]
TAGS = dict(title="Song ünicode", artist="Artist", album_artist="Album Artist", album="Album", date="2024",
            genre="Jazz", comment="Comment", composer="Composer", copyright="(c) 2024", description="Description",
            track="3/12", disc="1/2", compilation="1", creation_time="2024-05-01T08:00:00Z")
EXIF = dict(Title="title", Artist="artist", AlbumArtist="album_artist", Album="album", ContentCreateDate="date",
            Genre="genre", Comment="comment", Composer="composer", Copyright="copyright", Description="description",
            Encoder="encoder", TrackNumber="track", DiskNumber="disc", Compilation="compilation", CoverArt="cover",
            Make="make", Model="model", Software="software", GPSCoordinates="location", CreationDate="creation_time",
            CreateDate="creation_time", ModifyDate="modification_time", Year="date", Performer="artist", Author="auth")
QT = "com.apple.quicktime."
FFPROBE = {QT + "make": "make", QT + "model": "model", QT + "software": "software", "location-eng": None,
           QT + "location.ISO6709": "location", QT + "creationdate": "creation_time"}
MUTAGEN = {"\xa9nam": "title", "\xa9ART": "artist", "aART": "album_artist", "\xa9alb": "album", "\xa9day": "date",
           "\xa9gen": "genre", "\xa9cmt": "comment", "\xa9wrt": "composer", "cprt": "copyright",
           "desc": "description", "\xa9too": "encoder", "trkn": "track", "disk": "disc", "cpil": "compilation",
           "covr": "cover"}


def date(text):
    text = re.sub(r"^(\d{4}):(\d\d):", r"\1-\2-", str(text)).replace(" ", "T", 1)
    try:
        when = datetime.datetime.fromisoformat(text.replace("Z", "+00:00"))
    except ValueError:
        return None
    when = when.replace(tzinfo=when.tzinfo or datetime.timezone.utc).astimezone(datetime.timezone.utc)
    return None if when.year < 1905 else when.strftime("%Y-%m-%dT%H:%M:%SZ")


def normal(key, value):
    if key in ("creation_time", "modification_time"):
        return date(value)
    if key == "location":
        parts = [float(x) for x in re.findall(r"[-+]?\d+(?:\.\d+)?", str(value).split("/")[0])]
        return ("%+08.4f%+09.4f" + "%+08.3f" * (len(parts) > 2) + "/") % tuple(parts)
    if key in ("track", "disc"):
        return "/".join(str(x) for x in (value if isinstance(value, tuple) else re.findall(r"\d+", str(value))) if x)
    if key == "cover":
        size = re.search(r"(\d+) bytes", str(value))
        return size and "%s %s" % ("image/png" if "PNG" in str(value) else "image/jpeg", size.group(1))
    return str(value) if value not in ("", None) else None


def readings(path):
    """{key: {tool: value}} and the chapters ffprobe gives."""
    seen = {}
    def add(tool, key, value):
        value = key and normal(key, value)
        if value:
            seen.setdefault(key, {})[tool] = value
    for name, value in json.loads(subprocess.check_output(["exiftool", "-n", "-j", path]))[0].items():
        add("exiftool", EXIF.get(name), value)
    probe = json.loads(subprocess.check_output(["ffprobe", "-v", "error", "-of", "json", "-show_format",
                                                "-show_chapters", path]))
    for name, value in probe["format"].get("tags", {}).items():
        if name not in ("major_brand", "minor_version", "compatible_brands"):
            add("ffprobe", FFPROBE.get(name, name), value)
    script = ("import mutagen.mp4,sys\nfor k,v in (mutagen.mp4.MP4(sys.argv[1]).tags or {}).items():"
              "\n print(repr((k,[v] if isinstance(v,bool) else [(x.imageformat,len(x)) if k=='covr' else tuple(x)"
              " if k in('trkn','disk') else x for x in v])))")
    if path.endswith(("m4a", "mp4")):
        for line in subprocess.check_output(["/usr/bin/python3", "-c", script, path], text=True).splitlines():
            key, values = eval(line)
            value = values[0]
            if key == "covr":
                value = "%s bytes%s" % (value[1], " PNG" if value[0] == 14 else "")
            key = MUTAGEN.get(key, key[5:] if key.startswith("----:") else None)
            add("mutagen", key, int(value) if value is True else value)
    chapters = ["chapter %.3f %.3f %s" % (float(c["start_time"]), float(c["end_time"]), c["tags"].get("title", ""))
                for c in probe["chapters"]]
    return seen, chapters


def listing(path, check=False):
    seen, chapters = readings(path)
    lines = ["# %s as exiftool -n, ffprobe and mutagen read it (make_meta.py says how)" % os.path.basename(path)]
    for key, tools in sorted(seen.items()):
        if len(set(tools.values())) > 1:
            raise SystemExit("%s: the tools disagree on %s: %s" % (path, key, tools))
        lines.append("%s %s  # %s" % (key, next(iter(tools.values())), " ".join(sorted(tools))))
    text = "\n".join(lines + chapters) + "\n"
    if check and open(path + ".tags").read() != text:
        raise SystemExit("%s: the tools now read\n%s" % (path, text))
    open(path + ".tags", "w").write(text)


def splice(source, out, extra, rename=None):
    """source with `extra` atoms behind the last child of its "moov" (the file's last atom)."""
    data = open(source, "rb").read()
    moov = next(a for a in atoms(data) if a.name == b"moov")
    assert moov.pos + moov.size == len(data)
    body = moov.body(data) + extra
    for old, new in (rename or {}).items():
        body = body.replace(old, new)
    open(out, "wb").write(data[:moov.pos] + box("moov", body))


def item(name, text):
    return box(name, full("data", 0, 1, b"\0" * 4, text.encode()))


NAMES = ("itunes.m4a", "mdta_ffmpeg.mp4", "chpl_only.m4a", "phone_mdta.mov", "android_xyz.mp4", "strings.3gp")


def main():
    os.chdir(os.path.dirname(os.path.abspath(__file__)))
    if sys.argv[1:] == ["--check"]:
        return [listing(name, True) for name in NAMES]
    open("/tmp/meta_chapters.txt", "w").write(";FFMETADATA1\n[CHAPTER]\nTIMEBASE=1/1000\nSTART=0\nEND=400\n"
                                              "title=Intro\n[CHAPTER]\nTIMEBASE=1/1000\nSTART=400\nEND=1000\n"
                                              "title=Théâtre\n")
    subprocess.check_call(FF + ["-f", "lavfi", "-i", "testsrc=s=32x32:d=0.04", "-frames:v", "1",
                                "/tmp/meta_cover.jpg"])
    metadata = [x for k, v in TAGS.items() for x in ("-metadata", "%s=%s" % (k, v))]
    subprocess.check_call(FF + SINE + ["-i", "/tmp/meta_chapters.txt", "-i", "/tmp/meta_cover.jpg", "-map", "0",
                                       "-map", "2", "-map_chapters", "1", "-c:a", "aac", "-b:a", "16k", "-c:v",
                                       "copy", "-disposition:v", "attached_pic"] + metadata + ["itunes.m4a"])
    subprocess.check_call(FF + SINE + ["-c:a", "aac", "-b:a", "16k", "-movflags", "use_metadata_tags",
                                       "-metadata", "title=Keyed", "-metadata", QT + "make=Maker",
                                       "-metadata", "custom=value", "mdta_ffmpeg.mp4"])
    plain = ["-c:a", "aac", "-b:a", "16k", "-metadata", "creation_time=2024-05-01T08:00:00Z"]
    subprocess.check_call(FF + SINE + plain + ["/tmp/meta_plain.mp4"])
    subprocess.check_call(FF + SINE + plain + ["-metadata", "title=Title 3GP", "-metadata", "artist=Performer",
                                               "-metadata", "author=Author", "/tmp/meta_plain.3gp"])
    # A chapter list in "chpl" alone: the chapter track's reference renamed.
    splice("itunes.m4a", "chpl_only.m4a", b"", {b"\x00\x00\x00\x0cchap": b"\x00\x00\x00\x0cxxxx"})
    # As phones write it: QuickTime metadata by key, the local time with its offset.
    keys = [(QT + k, v) for k, v in (("make", "Apple"), ("model", "iPhone 12"), ("software", "17.4.1"),
                                     ("location.ISO6709", "+48.8577+002.2950+035.000/"),
                                     ("creationdate", "2024-05-01T10:00:00+0200"))]
    meta = box("meta", full("hdlr", 0, 0, b"\0" * 4, b"mdta", b"\0" * 13),
               full("keys", 0, 0, len(keys).to_bytes(4, "big"),
                    b"".join(box("mdta", k.encode()) for k, _ in keys)),
               box("ilst", b"".join(item(chr(0) * 3 + chr(i + 1), v) for i, (_, v) in enumerate(keys))))
    splice("/tmp/meta_plain.mp4", "phone_mdta.mov", meta)
    # As Android writes it: "\xA9xyz" in "udta" (16-bit length, language, text).
    xyz = b"+48.8577+002.2950/"
    splice("/tmp/meta_plain.mp4", "android_xyz.mp4",
           box("udta", box("\xa9xyz", len(xyz).to_bytes(2, "big"), b"\x15\xc7", xyz)))
    # 3GPP strings beside FFmpeg's: a description in UTF-16, a genre, a location.
    lang = b"\x15\xc7"
    loci = full("loci", 0, 0, lang, b"Eiffel\0", b"\0", (int(2.295 * 65536)).to_bytes(4, "big"),
                (int(48.8577 * 65536)).to_bytes(4, "big"), (35 * 65536).to_bytes(4, "big"), b"Earth\0", b"\0")
    splice("/tmp/meta_plain.3gp", "strings.3gp",
           box("udta", full("dscp", 0, 0, lang, "\ufeffDescription ∞".encode("utf-16-be"), b"\0\0"),
               full("gnre", 0, 0, lang, b"Pop\0"), loci))
    for name in NAMES:
        listing(name)


if __name__ == "__main__":
    main()
