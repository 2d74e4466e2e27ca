# The round trip of mux.txt, sourced by its lines (by sh) behind the tool's
# path in $tool.
#
# trip FILE ID EXT [MUX OPTIONS]: extracts track ID of FILE as a stream,
# muxes it, extracts the muxed track again and prints "same stream" when the
# two streams are equal byte for byte; then, where FILE has a listing of
# modern/ (FILE.samples, from ffprobe), "N packets as the source" when every
# packet of the muxed track has the decode time (from the first), size, key
# flag, composition offset and CRC-32 of the source's (times in microseconds,
# so that the timescales may differ), else both lists. MUX OPTIONS "-" feeds
# the stream through a pipe on standard input.
trip() {
  local file=$1 id=$2 ext=$3
  shift 3
  "$tool" extract "$file" --track "$id" -o "a.$ext" >/dev/null || return
  if [ "$1" = - ]; then cat "a.$ext" | "$tool" mux -o m.mp4 -; else "$tool" mux -o m.mp4 "$@" "a.$ext"; fi || return
  "$tool" extract m.mp4 --track 1 -o "b.$ext" >/dev/null || return
  cmp -s "a.$ext" "b.$ext" && printf "same stream" || { echo "streams differ"; return; }
  case $file in */modern/*) ;; *) echo; return ;; esac
  if grep -q "^pcm " "$file.samples"; then echo; return; fi
  local a b
  local scale
  scale=$("$tool" info m.mp4 | awk '/timescale/{print $2 + 0; exit}')
  a=$(awk -v id="$id" '/^track /{on = $2 == id; ts = $6; next} on && !/^#/{printf "%.0f %s %s %.0f %s\n", $1 * 1e6 / ts, $2, $4, $5 * 1e6 / ts, $6}' "$file.samples")
  b=$("$tool" samples m.mp4 | awk -v ts="$scale" '!/^#/{printf "%.0f %s %s %.0f %s\n", $4 * 1e6 / ts, $6, $7, $5 * 1e6 / ts, $9}')
  [ "$a" = "$b" ] && echo ", $(echo "$a" | wc -l) packets as the source" || printf "\n%s\n--\n%s\n" "$a" "$b"
}

# decodes RATE EXT FFMPEG OUTPUT OPTIONS...: FFmpeg encodes two seconds of a
# tone at RATE Hz into a stream, which is muxed with --faststart and with
# --fragmented; prints per file "same sound as FFmpeg's MP4" when ffmpeg
# decodes it to the samples it decodes from its own MP4 of the stream in
# that layout (ffmpeg -c copy, fragmented with frag_keyframe: FFmpeg trims
# no end of MP3 or Opus in an MP4 file, as it does in the stream itself),
# or "same sound as the stream" for those FFmpeg writes no MP4 of (FLAC,
# PCM), and what ffprobe warns of.
decodes() {
  local rate=$1 ext=$2 layout flags a b what
  shift 2
  ffmpeg -v error -y -f lavfi -i "sine=frequency=440:sample_rate=$rate" -t 2 "$@" "s.$ext" || return
  for layout in --faststart --fragmented; do
    flags=+faststart
    [ $layout = --fragmented ] && flags=+frag_keyframe+empty_moov
    what="FFmpeg's MP4"
    ffmpeg -v quiet -y -i "s.$ext" -c copy -movflags $flags r.mp4 || { what="the stream"; cp "s.$ext" r.mp4; }
    a=$(ffmpeg -v error -i r.mp4 -map 0:a:0 -c:a pcm_f64le -f f64le - | md5sum)
    "$tool" mux -o m.mp4 $layout "s.$ext" || return
    b=$(ffmpeg -v error -i m.mp4 -map 0:a:0 -c:a pcm_f64le -f f64le - | md5sum)
    printf "%s %s: %s\n" "$ext" "$layout" "$([ "$a" = "$b" ] && echo "same sound as $what" || echo "other sound than $what")"
    ffprobe -v warning m.mp4
  done
}

# presents FORMAT BSF ENCODER OPTIONS...: FFmpeg encodes two seconds of a
# test picture with B-frames straight into an MP4 (r.mp4, its own timing),
# the stream is taken out of it (FORMAT: h264, hevc, m4v; BSF the bitstream
# filter that makes it the raw stream) and muxed plain and --fragmented; prints
# per layout whether ffprobe's presentation times equal those of FFmpeg's
# file up to a constant, and what ffmpeg warns of while decoding it.
presents() {
  local format=$1 bsf=$2 layout a b
  shift 2
  ffmpeg -v error -y -f lavfi -i testsrc=size=352x288:rate=30 -t 2 "$@" r.mp4 || return
  ffmpeg -v error -y -i r.mp4 -c copy -bsf:v "$bsf" -f "$format" s.raw || return
  a=$(ptimes r.mp4)
  for layout in --faststart --fragmented; do
    "$tool" mux -o m.mp4 $layout s.raw || return
    b=$(ptimes m.mp4)
    printf "%s %s: %s\n" "$format" $layout "$([ "$a" = "$b" ] && echo "$(echo "$a" | wc -l) frames present as in FFmpeg's MP4" || echo "other times than FFmpeg's MP4")"
    ffmpeg -v warning -nostdin -i m.mp4 -f null - 2>&1
  done
}

# The presentation times of a file's video packets, in order, from the first.
ptimes() {
  ffprobe -v error -select_streams v -show_entries packet=pts_time -of csv=p=0 "$1" | sort -g |
    awk 'NR == 1 {first = $1} {printf "%.4f\n", $1 - first}'
}
