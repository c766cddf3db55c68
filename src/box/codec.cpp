// The box codec driver: one routine reads or writes any box with its subtree. It frames every
// box the same way (header, type dispatch, children, size reconciliation) and leaves the fields
// of each type to the layouts of layouts.h.
#include "box/layouts.h"

#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

int show_resizing = 1;
int show_actual_size = 1;

enum { MAX_BOX_DEPTH = 20 };

static inline char c4(uint32_t type, int shift) {
    return char(type >> shift);
}
#define TYPE_CHARS(t) c4(t, 24), c4(t, 16), c4(t, 8), c4(t, 0)

// ---- bounded allocation ----------------------------------------------------------------------

static bool memory_backend(const mp4_muxer *m) {
    return m->fd == -1 && !m->fp;
}

// Bytes the input still holds after the current position, or UINT64_MAX when that cannot be
// learned (a pipe, or a memory reader with no buffer at all reads nothing: 0).
static uint64_t inputRemaining(mp4_muxer *m) {
    int fd = -1;
    off64_t here = -1;
    if (m->fd != -1) {
        fd = m->fd;
        here = lseek64(fd, 0, SEEK_CUR);
    } else if (m->fp) {
        fd = fileno(m->fp);
        here = ftello64(m->fp);
    } else {
        if (!m->buffer || m->pos < m->buffer_start)
            return 0;
        uint64_t end = m->buffer_start + buffer_readable(m);
        return m->pos < end ? end - m->pos : 0;
    }
    struct stat st;
    if (m->fp && here >= 0 && (fd < 0 || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))) {
        // A stream without a regular file behind it (fmemopen, a pipe): its length is learned by
        // seeking to its end and back, where it can seek at all.
        if (fseeko64(m->fp, 0, SEEK_END) == 0) {
            off64_t end = ftello64(m->fp);
            fseeko64(m->fp, here, SEEK_SET);
            if (end >= 0)
                return uint64_t(end) > uint64_t(here) ? uint64_t(end) - uint64_t(here) : 0;
        }
        return UINT64_MAX;
    }
    if (fd < 0 || here < 0 || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))
        return UINT64_MAX;
    return uint64_t(st.st_size) > uint64_t(here) ? uint64_t(st.st_size) - uint64_t(here) : 0;
}

bool inputHolds(mp4_muxer *m, uint64_t bytes) {
    if (inputRemaining(m) >= bytes)
        return true;
    m->flags |= MP4_END_OF_INPUT;
    return false;
}

void *allocEntries(mp4_muxer *m, uint32_t count, size_t entry_size, size_t disk_entry_size) {
    if (count == 0 || entry_size == 0 || at_end_of_input(m))
        return nullptr;
    if (!inputHolds(m, uint64_t(count) * disk_entry_size))
        return nullptr;
    return mp4_calloc(count, entry_size);
}

// ---- the driver ------------------------------------------------------------------------------

// Drops a node the codec built for a failed read. It is not linked into the tree yet, so no
// other node's size may change: cut the parent link before deleting.
static void discardNode(Box *node) {
    if (!node || (node->node_flags & BOX_ON_STACK))
        return;
    node->parent = nullptr;
    deleteBox(node);
}

// The input ran out: back to the box's start so the caller can retry with more input.
static Box *rewindExit(mp4_muxer *m, Box *node, uint64_t start) {
    muxer_seek(m, start);
    if (m->flags & MP4_DEBUG)
        fprintf(stderr, "%s: seeking back to %lu\n", "rwBox", (unsigned long)start);
    if (is_reader(m))
        discardNode(node);
    m->depth--;
    return nullptr;
}

static Box *allocationExit(mp4_muxer *m, Box *node, uint32_t type, uint64_t start, uint64_t size) {
    fprintf(stderr, "%s: failed to allocate memory for box %c%c%c%c\n", "rwBox", TYPE_CHARS(type));
    muxer_seek(m, start + size);
    if (is_reader(m))
        discardNode(node);
    m->depth--;
    m->error = MP4_ERR_NOMEM;
    return nullptr;
}

// A reader meeting the end of a memory buffer inside a box. Returns true when the box is to be
// given up (the caller takes the rewind exit with the possibly moved start).
static bool shortBuffer(mp4_muxer *m, Box *node, uint64_t *start) {
    if (!is_reader(m) || !memory_backend(m) || !m->buffer)
        return false;
    // A header that was not read whole says nothing about the box: retry it later.
    if (at_end_of_input(m))
        return true;
    uint64_t end = *start + node->size;
    if (end <= m->buffer_start + m->buffer_size)
        return false;
    if (!m->linked)
        return true;
    printf("%s: short input type=%c%c%c%c size=%lu @%lu\n", "rwBox", TYPE_CHARS(node->type),
           (unsigned long)node->size, (unsigned long)*start);
    if (node->type == fourcc("mdat"))
        return false; // its own case keeps the part that is present
    // The remuxer cannot use the box: count it as consumed and wait for the input after it.
    m->flags |= MP4_END_OF_INPUT;
    *start = end;
    m->buffer_size = uint32_t(end - m->buffer_start);
    return true;
}

static bool isContainer(uint32_t type) {
    switch (type) {
    case fourcc("dinf"):
    case fourcc("edts"):
    case fourcc("mdia"):
    case fourcc("minf"):
    case fourcc("moof"):
    case fourcc("moov"):
    case fourcc("mvex"):
    case fourcc("rmda"):
    case fourcc("rmra"):
    case fourcc("stbl"):
    case fourcc("traf"):
    case fourcc("trak"):
        return true;
    default:
        return false;
    }
}

// Codes the fields of `*node` by its type. Returns false when a record or array could not be
// allocated. Types without a layout are passed over: the position moves to the box's end.
static bool codeFields(mp4_muxer *m, Box **node, uint64_t start) {
    Box *b = *node;
    switch (b->type) {
    case fourcc("ftyp"):
        return codeFtyp(m, node, start);
    case fourcc("mvhd"):
        return codeMvhd(m, node, start);
    case fourcc("tkhd"):
        return codeTkhd(m, node, start);
    case fourcc("mdhd"):
        return codeMdhd(m, node, start);
    case fourcc("hdlr"):
        return codeHdlr(m, node, start);
    case fourcc("vmhd"):
        return codeVmhd(m, node, start);
    case fourcc("smhd"):
        return codeSmhd(m, node, start);
    case fourcc("hmhd"):
        return codeHmhd(m, node, start);
    case fourcc("nmhd"):
        return codeNmhd(m, node, start);
    case fourcc("dref"):
        return codeDref(m, node, start);
    case fourcc("url "):
    case fourcc("alis"):
        return codeUrl(m, node, start);
    case fourcc("urn "):
        return codeUrn(m, node, start);
    case fourcc("elst"):
        return codeElst(m, node, start);
    case fourcc("free"):
    case fourcc("skip"):
    case fourcc("wide"):
        return codeFree(m, node, start);
    case fourcc("mdat"):
        return codeMdat(m, node, start);
    case fourcc("stts"):
        return codeStts(m, node, start);
    case fourcc("ctts"):
        return codeCtts(m, node, start);
    case fourcc("stss"):
        return codeStss(m, node, start);
    case fourcc("stsz"):
        return codeStsz(m, node, start);
    case fourcc("stz2"):
        return codeStz2(m, node, start);
    case fourcc("stsc"):
        return codeStsc(m, node, start);
    case fourcc("stco"):
        return codeStco(m, node, start);
    case fourcc("co64"):
        return codeCo64(m, node, start);
    case fourcc("stsd"):
        return codeStsd(m, node, start);
    case fourcc("mett"):
    case fourcc("metx"):
        return codePlainSampleEntry(m, node, start);
    case fourcc("avcC"):
        return codeAvcC(m, node, start);
    case fourcc("btrt"):
        return codeBtrt(m, node, start);
    case fourcc("chan"):
        return codeChan(m, node, start);
    case fourcc("fiel"):
        return codeFiel(m, node, start);
    case fourcc("mehd"):
        return codeMehd(m, node, start);
    case fourcc("trex"):
        return codeTrex(m, node, start);
    case fourcc("mfhd"):
        return codeMfhd(m, node, start);
    case fourcc("tfhd"):
        return codeTfhd(m, node, start);
    case fourcc("trun"):
        return codeTrun(m, node, start);
    case fourcc("tfra"):
        return codeTfra(m, node, start);
    case fourcc("mfro"):
        return codeMfro(m, node, start);
    case fourcc("esds"):
        return codeEsds(m, node, start);
    case fourcc("iods"):
        return codeIods(m, node, start);
    case fourcc("dinf"):
    case fourcc("edts"):
    case fourcc("mdia"):
    case fourcc("minf"):
    case fourcc("moof"):
    case fourcc("moov"):
    case fourcc("mvex"):
    case fourcc("rmda"):
    case fourcc("rmra"):
    case fourcc("stbl"):
    case fourcc("traf"):
    case fourcc("trak"):
        return true; // pure containers: children only
    default:
        if (b->parent && b->parent->type == fourcc("stsd")) {
            bool decoded = true;
            if (!codeSampleEntry(m, node, start, &decoded))
                return false;
            if (decoded)
                return true;
            // No layout for this handler (codeSampleEntry has said so): pass it over.
        }
        // Not decoded: keep the header, pass over the content.
        muxer_seek(m, start + (*node)->size);
        return true;
    }
}

Box *rwBox(mp4_muxer *m, Box *box) {
    Box tmp; // the reader's temporary storage until the box's type is known
    if (!box) {
        if (!is_reader(m)) {
            printf("%s: attempting to write NULL box\n", "rwBox");
            m->error = MP4_ERR_NULL_BOX;
            return nullptr;
        }
    }
    if (is_reader(m)) {
        // A reader always builds a fresh node; a node passed in is left alone.
        memset(&tmp, 0, sizeof tmp);
        tmp.parent = m->parent;
        tmp.node_flags = BOX_HEADER_ONLY | BOX_ON_STACK;
        box = &tmp;
    }

    if (++m->depth > MAX_BOX_DEPTH) {
        printf("%s: recursion limit reached\n", "rwBox");
        m->depth--;
        m->error = MP4_ERR_RECURSION;
        return nullptr;
    }

    uint64_t start = muxer_pos(m);

    uint32_t hsize = req64(box->size) ? 1 : uint32_t(box->size);
    rw32(m, &hsize);
    rw32(m, &box->type);
    if (hsize == 1)
        rw64(m, &box->size);
    else
        box->size = hsize;
    box->data_pos = muxer_pos(m);

    if (shortBuffer(m, box, &start))
        return rewindExit(m, box, start);
    if (is_reader(m) && at_end_of_input(m))
        return rewindExit(m, box, start);

    if (is_reader(m) && box->size < 8) {
        printf("%s: corrupt input type=%c%c%c%c size=%lu\n", "rwBox", TYPE_CHARS(box->type),
               (unsigned long)box->size);
        m->depth--;
        m->error = MP4_ERR_BAD_INPUT;
        return nullptr;
    }

    uint32_t type = box->type;
    uint64_t declared = box->size;
    if (!codeFields(m, &box, start))
        return allocationExit(m, box, type, start, declared);

    if (is_reader(m)) {
        if (at_end_of_input(m))
            return rewindExit(m, box, start);
        if (box->node_flags & BOX_ON_STACK) {
            if (!extendBox(&box, sizeof(Box)))
                return allocationExit(m, box, type, start, declared);
        }
    }

    if (m->flags & MP4_DEBUG)
        printBox(m, box);

    indent += 4;
    if (is_reader(m)) {
        Box *last = nullptr;
        while (muxer_pos(m) + 8 < start + box->size) {
            m->parent = box;
            Box *child = rwBox(m, nullptr);
            m->parent = nullptr;
            if (!child)
                break;
            treeChanged();
            if (last)
                last->next = child;
            else
                box->first_child = child;
            last = child;
            if (child->size <= 7)
                break;
        }
    } else {
        for (Box *child = box->first_child; child; child = child->next)
            rwBox(m, child);
    }
    indent -= 4;

    if (!is_reader(m)) {
        uint64_t actual = muxer_pos(m) - start;
        if (actual != box->size) {
            if (box->node_flags & BOX_AUTO_SIZE) {
                if ((m->flags & MP4_DEBUG) &&
                    (show_resizing || (actual < box->size && show_actual_size)))
                    iprintf("(actual %c%c%c%c box size %lu)\n", TYPE_CHARS(box->type),
                            (unsigned long)actual);
                box->size = actual;
                updateBoxSize(m, box);
                // A placeholder absorbed into a 64-bit header moved the box's start back.
                if (box->size > actual)
                    start -= box->size - actual;
            } else if (box->size > actual + 8) {
                DataBox pad;
                memset(&pad, 0, sizeof pad);
                pad.type = (m->flags & MP4_MOV) ? fourcc("wide") : fourcc("free");
                pad.size = box->size - actual;
                rwBox(m, &pad);
            }
        }
    }

    muxer_seek(m, start + box->size);
    box->node_flags &= uint8_t(~BOX_HEADER_ONLY);
    m->depth--;
    return box;
}

// ---- size prediction -------------------------------------------------------------------------

// The record of a node, or null when the node holds only a header (an undecoded box read from
// a file). Nodes built outside the allocator (alloc_size 0) are taken as full records.
template <class T> static const T *record(const Box *b) {
    if (!b || (b->alloc_size != 0 && b->alloc_size < sizeof(T)))
        return nullptr;
    return static_cast<const T *>(b);
}

static uint64_t predictSampleEntries(const Box *stsd) {
    const Box *mdia = stsd->parent ? stsd->parent->parent : nullptr;
    mdia = mdia ? mdia->parent : nullptr;
    const Hdlr *hdlr = record<Hdlr>(getChild(const_cast<Box *>(mdia), fourcc("hdlr")));
    if (!hdlr)
        return 0;
    const Box *entry = stsd->first_child;
    switch (hdlr->handler_type) {
    case fourcc("soun"): {
        if (!entry)
            return 0;
        const SampleEntry *se = record<SampleEntry>(entry);
        uint64_t fixed = (se && se->version == 1) ? 52 : 36;
        return fixed + checkBoxSize(entry->first_child);
    }
    case fourcc("vide"):
        if (!entry)
            return 0;
        return 86 + checkBoxSize(entry->first_child);
    default:
        printf("%s: unhandled handler_type=%c%c%c%c\n", "checkBoxSize",
               TYPE_CHARS(hdlr->handler_type));
        return 0;
    }
}

uint64_t checkBoxSize(Box *box) {
    if (!box)
        return 0;
    uint64_t s = 0;
    const FullBox *full = record<FullBox>(box);
    switch (box->type) {
    case fourcc("mvhd"):
        s = 108;
        break;
    case fourcc("tkhd"):
        s = (full && full->version == 1) ? 104 : 92;
        break;
    case fourcc("mdhd"):
        s = (full && full->version == 1) ? 44 : 32;
        break;
    case fourcc("hdlr"): {
        const Hdlr *h = record<Hdlr>(box);
        s = 33 + ((h && h->name) ? strlen(h->name) : 0);
        break;
    }
    case fourcc("vmhd"):
        s = 20;
        break;
    case fourcc("smhd"):
        s = 16;
        break;
    case fourcc("url "): {
        const Url *u = record<Url>(box);
        s = 13 + (u ? strnlen(u->location, sizeof u->location) : 0);
        break;
    }
    case fourcc("dref"):
        s = 16 + checkBoxSize(box->first_child);
        break;
    case fourcc("stts"): {
        const Stts *t = record<Stts>(box);
        s = 16 + 8 * uint64_t(t ? t->entry_count : 0);
        break;
    }
    case fourcc("co64"): {
        const Co64 *t = record<Co64>(box);
        s = 16 + 8 * uint64_t(t ? t->entry_count : 0);
        break;
    }
    case fourcc("stss"): {
        const Stss *t = record<Stss>(box);
        s = 16 + 4 * uint64_t(t ? t->entry_count : 0);
        break;
    }
    case fourcc("stco"): {
        const Stco *t = record<Stco>(box);
        s = 16 + 4 * uint64_t(t ? t->entry_count : 0);
        break;
    }
    case fourcc("stsc"): {
        const Stsc *t = record<Stsc>(box);
        s = 16 + 12 * uint64_t(t ? t->entry_count : 0);
        break;
    }
    case fourcc("stsz"): {
        const Stsz *t = record<Stsz>(box);
        s = 20 + 4 * uint64_t(t ? t->sample_count : 0);
        break;
    }
    case fourcc("elst"): {
        const Elst *t = record<Elst>(box);
        uint64_t per = (t && t->version == 1) ? 20 : 12;
        s = 16 + per * (t ? t->entry_count : 0);
        break;
    }
    case fourcc("stsd"):
        s = 16 + predictSampleEntries(box);
        break;
    case fourcc("iods"):
        s = 33;
        break;
    case fourcc("esds"):
        s = 40;
        break;
    case fourcc("avcC"): {
        const AvcC *a = record<AvcC>(box);
        s = 19 + (a ? uint64_t(a->length[0]) + a->length[1] : 0);
        break;
    }
    case fourcc("free"):
    case fourcc("skip"):
    case fourcc("wide"):
    case fourcc("mdat"):
    case fourcc("ftyp"):
    case fourcc("avc1"):
    case fourcc("mp4a"):
    case fourcc("mp4v"):
        return box->size;
    default:
        if (isContainer(box->type)) {
            s = 8;
            for (Box *c = box->first_child; c; c = c->next)
                s += checkBoxSize(c);
            break;
        }
        fprintf(stderr, "%s: unhandled type=%c%c%c%c size=%lu\n", "checkBoxSize",
                TYPE_CHARS(box->type), (unsigned long)box->size);
        return box->size;
    }
    if (req64(s))
        s += 8; // the 64-bit header
    return s;
}
