/* write_frames VIDEO.m4v AUDIO.aac OUT.mp4: write an MP4 file from a raw
 * MPEG-4 video stream (ISO/IEC 14496-2) and an AAC stream in ADTS.
 *
 * Video: the headers in front of the first plane (VOP start code
 * 00 00 01 B6), without their user data, are the decoder configuration;
 * a frame runs from its plane,
 * or from the sequence header (00 00 01 B0) that the encoder repeats in
 * front of it, to the next frame; a plane coded as I is a key frame. The
 * stream is taken to run at 25 frames per second.
 * Audio: each ADTS frame gives one raw AAC frame, its header (and CRC)
 * stripped; the first header serves as the configuration. An AAC frame
 * holds 1024 samples, and the track counts time in samples. */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "mp4core.h"

#define FRAMES_PER_SECOND 25
#define VIDEO_TIMESCALE 1000
#define MAX_CONFIG 52 /* the most CreateTrack takes */

typedef struct {
    uint8_t *data;
    size_t size;
} Buffer;

static int read_file(const char *path, Buffer *buffer) {
    FILE *in = fopen(path, "rb");
    if (in == NULL) return 0;
    int ok = fseek(in, 0, SEEK_END) == 0;
    long size = ok ? ftell(in) : -1;
    ok = size > 0 && fseek(in, 0, SEEK_SET) == 0;
    buffer->data = ok ? malloc((size_t)size) : NULL;
    buffer->size = (size_t)size;
    ok = buffer->data != NULL && fread(buffer->data, 1, buffer->size, in) == buffer->size;
    fclose(in);
    return ok;
}

/* The next start code 00 00 01 XX at or after `from`, or `size`. */
static size_t next_start_code(const Buffer *s, size_t from) {
    for (size_t i = from; i + 3 < s->size; i++)
        if (s->data[i] == 0 && s->data[i + 1] == 0 && s->data[i + 2] == 1) return i;
    return s->size;
}

/* The headers in front of the first plane, without user data (00 00 01 B2
 * up to the next start code): encoders put their name there, which can
 * push the headers past what CreateTrack takes. Gives the size copied to
 * `config`, or MAX_CONFIG + 1 when the rest would not fit. */
static size_t copy_config(const Buffer *s, size_t first_vop, uint8_t *config) {
    size_t size = 0;
    for (size_t at = next_start_code(s, 0); at < first_vop;) {
        size_t next = next_start_code(s, at + 3);
        if (next > first_vop) next = first_vop;
        if (s->data[at + 3] != 0xB2) {
            if (size + (next - at) > MAX_CONFIG) return MAX_CONFIG + 1;
            memcpy(config + size, s->data + at, next - at);
            size += next - at;
        }
        at = next;
    }
    return size;
}

static int add_video(MP4_local_file *file, const Buffer *s, const char *path,
                     const char *temp_name) {
    size_t first_vop = next_start_code(s, 0);
    while (first_vop < s->size && s->data[first_vop + 3] != 0xB6)
        first_vop = next_start_code(s, first_vop + 3);
    uint8_t config[MAX_CONFIG];
    size_t config_size = first_vop < s->size ? copy_config(s, first_vop, config) : 0;
    if (config_size == 0 || config_size > MAX_CONFIG) {
        fprintf(stderr, "%s: no headers and plane, or headers over %d bytes\n", path, MAX_CONFIG);
        return 0;
    }
    /* CreateTrack reads the picture size from a configuration only in one
     * layout of the headers; GetM4vHeaderSize finds it in any. */
    uint32_t width = 0, height = 0;
    if (GetM4vHeaderSize(path, &width, &height) == 0xFFFFFFFFu) width = height = 0;
    /* 0x01: Simple Profile level 1, as the video object sequence header of
     * the sample stream says. */
    if (CreateTrack(file, MP4_TRACK_VIDEO, width, height, 0, VIDEO_TIMESCALE, 0x01, 0, 0, 0,
                    (uint32_t)config_size, config, temp_name, 0) != 1) {
        fprintf(stderr, "CreateTrack (video) failed\n");
        return 0;
    }
    uint32_t frames = 0, keys = 0;
    size_t start = first_vop, plane = first_vop, headers = 0;
    for (size_t at = next_start_code(s, first_vop + 3);; at = next_start_code(s, at + 3)) {
        int code = at < s->size ? s->data[at + 3] : -1; /* -1: the end of the stream */
        if (code == 0xB0 && headers == 0) headers = at;  /* repeated headers begin a frame */
        if (code != 0xB6 && code != -1) continue;
        /* The frame runs from `start` to the next frame's headers or plane. */
        size_t end = headers != 0 ? headers : at;
        int key = plane + 4 < s->size && (s->data[plane + 4] >> 6) == 0; /* coded as I */
        uint32_t time = frames * (VIDEO_TIMESCALE / FRAMES_PER_SECOND);
        if (AddVideoFrame(file, (uint32_t)(end - start), s->data + start, 0, time, key, 0) != 1) {
            fprintf(stderr, "AddVideoFrame failed at frame %u\n", frames);
            return 0;
        }
        frames++;
        keys += key;
        if (code == -1) break;
        start = end;
        plane = at;
        headers = 0;
    }
    printf("video: %u frames, %u key frames, %ux%u\n", frames, keys, width, height);
    return 1;
}

static int add_audio(MP4_local_file *file, const Buffer *s, const char *path,
                     const char *temp_name) {
    static const uint32_t rates[13] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                       22050, 16000, 12000, 11025, 8000,  7350};
    const uint8_t *h = s->data;
    uint32_t index = s->size < 7 ? 15 : (h[2] >> 2) & 0x0F;
    if (index > 12 || h[0] != 0xFF || (h[1] & 0xF0) != 0xF0) {
        fprintf(stderr, "%s: no ADTS stream\n", path);
        return 0;
    }
    /* The first ADTS header as the configuration: the library takes
     * object type, sampling frequency and channels from it. */
    if (CreateTrack(file, MP4_TRACK_AUDIO, 0, 0, 0, rates[index], 0, 0, 0, 0, 7, h, temp_name,
                    0) != 1) {
        fprintf(stderr, "CreateTrack (audio) failed\n");
        return 0;
    }
    uint32_t frames = 0;
    for (size_t at = 0; at < s->size; frames++) {
        h = s->data + at;
        size_t left = s->size - at, length = 0, header = 7;
        if (left >= 7 && h[0] == 0xFF && (h[1] & 0xF0) == 0xF0) {
            length = ((size_t)(h[3] & 0x03) << 11) | ((size_t)h[4] << 3) | (h[5] >> 5);
            if (!(h[1] & 1)) header = 9; /* protection_absent 0: a CRC follows */
        }
        if (length <= header || length > left) {
            fprintf(stderr, "%s: broken ADTS frame at byte %zu\n", path, at);
            return 0;
        }
        if (AddAudioFrame(file, (uint32_t)(length - header), h + header, frames * 1024) != 1) {
            fprintf(stderr, "AddAudioFrame failed at frame %u\n", frames);
            return 0;
        }
        at += length;
    }
    printf("audio: %u frames, %u Hz\n", frames, rates[index]);
    return 1;
}

int main(int argc, char **argv) {
    if (argc != 4) {
        fprintf(stderr, "usage: %s VIDEO.m4v AUDIO.aac OUT.mp4\n", argv[0]);
        return 2;
    }
    Buffer video = {NULL, 0}, audio = {NULL, 0};
    if (!read_file(argv[1], &video) || !read_file(argv[2], &audio)) {
        fprintf(stderr, "can't read %s or %s\n", argv[1], argv[2]);
        free(video.data);
        free(audio.data);
        return 1;
    }
    /* The library writes each track's frames to a temp file of the
     * caller's naming until the flush; the names must stay valid until
     * then. */
    char video_temp[300], audio_temp[300];
    snprintf(video_temp, sizeof video_temp, "%s.video.tmp", argv[3]);
    snprintf(audio_temp, sizeof audio_temp, "%s.audio.tmp", argv[3]);

    MP4_local_file *file = NULL;
    if (MP4FileNew(&file, argv[3]) != 1) {
        fprintf(stderr, "MP4FileNew(%s) failed\n", argv[3]);
        free(video.data);
        free(audio.data);
        return 1;
    }
    int ok = add_video(file, &video, argv[1], video_temp) &&
             add_audio(file, &audio, argv[2], audio_temp);
    /* The flush writes the file, removes the temp files and releases the
     * handle, also after a failure above: it is the only way to end a
     * write handle. */
    MP4FileFlush(file);
    free(video.data);
    free(audio.data);
    if (!ok) {
        remove(argv[3]);
        return 1;
    }
    printf("wrote %s\n", argv[3]);
    return 0;
}
