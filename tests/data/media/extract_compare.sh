# The comparisons of extract_interop.txt, sourced by each of its lines (by
# sh) behind the tool's path in $tool. Each extracts a track and prints
# "same" when FFmpeg decodes the stream as it decodes the track in its MP4 file
# with the edit list ignored, or both hash lists when not.

# video FILE ID OUT [INPUT OPTIONS]: the frame hashes of -f framemd5, in order
# (a raw stream has no timestamps, so only the hash column counts). The MP4
# file's pictures are not turned by its "tkhd" matrix, which a raw stream
# has no place for.
video() {
  "$tool" extract "$1" --track "$2" -o "$3" >/dev/null || return
  local a b
  a=$(ffmpeg -v error -ignore_editlist 1 -noautorotate -i "$1" -map "0:i:$2" -f framemd5 - | grep -v "^#" | cut -d, -f6)
  b=$(ffmpeg -v error $4 -i "$3" -map 0:v:0 -f framemd5 - | grep -v "^#" | cut -d, -f6)
  [ -n "$a" ] && [ "$a" = "$b" ] && echo "same, $(echo "$a" | wc -l) pictures" || echo "$a" "$b"
}

# decoded FILE ID OPTIONS: the track's decoded sound as 64-bit floats, which
# hold every sample format exactly.
decoded() { ffmpeg -v error $3 -i "$1" -map "0:i:$2" -c:a pcm_f64le -f f64le -; }

# audio FILE ID OUT [REFERENCE ID]: the MD5 of the decoded sound, against
# track ID of REFERENCE when FFmpeg can't read FILE's track itself.
audio() {
  "$tool" extract "$1" --track "$2" -o "$3" >/dev/null || return
  local a b
  a=$(decoded "${4:-$1}" "${5:-$2}" "-ignore_editlist 1" | md5sum)
  b=$(ffmpeg -v error -i "$3" -map 0:a:0 -c:a pcm_f64le -f f64le - | md5sum)
  [ "$a" = "$b" ] && echo "same" || echo "$a" "$b"
}

# opus FILE ID OUT: an Ogg stream ends at its last granule position, where
# FFmpeg decodes an MP4 track's last packet whole; the Ogg decode against the
# same length of the MP4 decode, and both lengths in samples (per channel).
opus() {
  "$tool" extract "$1" --track "$2" -o "$3" >/dev/null || return
  local a b n m c
  n=$(ffmpeg -v error -i "$3" -c:a pcm_f64le -f f64le - | wc -c)
  m=$(decoded "$1" "$2" "-ignore_editlist 1" | wc -c)
  c=$(ffprobe -v error -show_entries stream=channels -of csv=p=0 "$3")
  a=$(decoded "$1" "$2" "-ignore_editlist 1" | head -c "$n" | md5sum)
  b=$(ffmpeg -v error -i "$3" -c:a pcm_f64le -f f64le - | md5sum)
  [ "$a" = "$b" ] && echo "same, the first $((n / 8 / c)) of $((m / 8 / c)) samples" || echo "$a" "$b"
}
