// Box dump printed while a handle's debug switch is on.
#include "box/box.h"

#include <cstdarg>
#include <cstdio>

int indent = 0;

void iprintf(const char *format, ...) {
    printf("%*s", indent, "");
    va_list ap;
    va_start(ap, format);
    vprintf(format, ap);
    va_end(ap);
}

void printBox(mp4_muxer *, Box *box) {
    iprintf("%c%c%c%c  size: %lu\n", char(box->type >> 24), char(box->type >> 16),
            char(box->type >> 8), char(box->type), (unsigned long)box->size);
}

void printDescriptor(uint8_t, const void *) {}
