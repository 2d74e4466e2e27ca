/* phone_metadata FILE: where, when and on what a phone video was shot, and
 * what the file is called: its date, place and camera, its title, cover and
 * chapters.
 *
 * MP4GetMetadata gathers the tags of every place a file keeps them (iTunes
 * items, a phone's keyed QuickTime metadata, "udta" strings, the header
 * times) under one set of lower-case keys; the whole list is one block,
 * released with MP4FreeMetadata. */
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "mp4core.h"

/* The text of the file's own tag `key`, or null. */
static const char *find_text(const MP4Tag *tags, uint32_t count, const char *key) {
    for (uint32_t i = 0; i < count; ++i)
        if (tags[i].TrackId == 0 && tags[i].Type == MP4_TAG_TEXT && strcmp(tags[i].Key, key) == 0)
            return (const char *)tags[i].Value;
    return NULL;
}

int main(int argc, char **argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s FILE\n", argv[0]);
        return 2;
    }
    MP4_local_file *file = NULL;
    int32_t result = MP4FileOpenEx(&file, argv[1], MP4_TABLE_MARKS, MP4_OPEN_MODERN);
    if (result != 1) {
        fprintf(stderr, "MP4FileOpenEx(%s) gave %d\n", argv[1], (int)result);
        return 1;
    }
    MP4Tag *tags = NULL;
    uint32_t count = 0;
    result = MP4GetMetadata(file, &tags, &count);
    if (result != 1) {
        fprintf(stderr, "MP4GetMetadata gave %d\n", (int)result);
        MP4FileClose(&file);
        return 1;
    }
    /* Dates are UTC whatever the phone's time zone was; the place is ISO
     * 6709 text: latitude, longitude, altitude. */
    const char *date = find_text(tags, count, "creation_time");
    const char *place = find_text(tags, count, "location");
    const char *make = find_text(tags, count, "make");
    const char *model = find_text(tags, count, "model");
    printf("shot %s at %s on %s %s\n", date ? date : "(no date)", place ? place : "(no place)",
           make ? make : "", model ? model : "(unknown camera)");
    for (uint32_t i = 0; i < count; ++i) {
        if (tags[i].Type == MP4_TAG_IMAGE)
            printf("cover: %s, %u bytes\n", tags[i].Mime, tags[i].Size);
    }
    MP4FreeMetadata(tags);

    MP4Chapter *chapters = NULL;
    if (MP4GetChapters(file, &chapters, &count) == 1) {
        for (uint32_t i = 0; i < count; ++i)
            printf("chapter at %.3f s: %s\n", (double)chapters[i].Start / chapters[i].Timescale,
                   chapters[i].Title);
        MP4FreeChapters(chapters);
    }
    MP4FileClose(&file);
    return 0;
}
