// The box tree: creation, linking with size bookkeeping up the ancestry, deletion, and patching
// a box's size in the stream after its contents were written.
#include "box/box.h"

#include <cstdlib>
#include <cstring>

size_t recordSize(uint32_t type) {
    switch (type) {
    case fourcc("ftyp"):
        return sizeof(Ftyp);
    case fourcc("mvhd"):
        return sizeof(Mvhd);
    case fourcc("tkhd"):
        return sizeof(Tkhd);
    case fourcc("mdhd"):
        return sizeof(Mdhd);
    case fourcc("hdlr"):
        return sizeof(Hdlr);
    case fourcc("vmhd"):
        return sizeof(Vmhd);
    case fourcc("smhd"):
        return sizeof(Smhd);
    case fourcc("hmhd"):
        return sizeof(Hmhd);
    case fourcc("nmhd"):
        return sizeof(FullBox);
    case fourcc("dref"):
        return sizeof(Dref);
    case fourcc("url "):
    case fourcc("alis"):
        return sizeof(Url);
    case fourcc("urn "):
        return sizeof(Urn);
    case fourcc("elst"):
        return sizeof(Elst);
    case fourcc("free"):
    case fourcc("skip"):
    case fourcc("wide"):
    case fourcc("mdat"):
        return sizeof(DataBox);
    case fourcc("stts"):
        return sizeof(Stts);
    case fourcc("ctts"):
        return sizeof(Ctts);
    case fourcc("stss"):
        return sizeof(Stss);
    case fourcc("stsz"):
        return sizeof(Stsz);
    case fourcc("stz2"):
        return sizeof(Stz2);
    case fourcc("stsc"):
        return sizeof(Stsc);
    case fourcc("stco"):
        return sizeof(Stco);
    case fourcc("co64"):
        return sizeof(Co64);
    case fourcc("stsh"):
        return sizeof(Stsh);
    case fourcc("stdp"):
        return sizeof(Stdp);
    case fourcc("padb"):
        return sizeof(Padb);
    case fourcc("stsd"):
        return sizeof(Stsd);
    case fourcc("avcC"):
        return sizeof(AvcC);
    case fourcc("btrt"):
        return sizeof(Btrt);
    case fourcc("chan"):
        return sizeof(Chan);
    case fourcc("fiel"):
        return sizeof(Fiel);
    case fourcc("mehd"):
        return sizeof(Mehd);
    case fourcc("trex"):
        return sizeof(Trex);
    case fourcc("mfhd"):
        return sizeof(Mfhd);
    case fourcc("tfhd"):
        return sizeof(Tfhd);
    case fourcc("trun"):
        return sizeof(Trun);
    case fourcc("tfra"):
        return sizeof(Tfra);
    case fourcc("mfro"):
        return sizeof(Mfro);
    case fourcc("esds"):
        return sizeof(Esds);
    case fourcc("iods"):
        return sizeof(Iods);
    case fourcc("moov"):
    case fourcc("trak"):
    case fourcc("edts"):
    case fourcc("mdia"):
    case fourcc("minf"):
    case fourcc("dinf"):
    case fourcc("stbl"):
    case fourcc("mvex"):
    case fourcc("moof"):
    case fourcc("traf"):
    case fourcc("rmra"):
    case fourcc("rmda"):
    case fourcc("mfra"):
        return sizeof(Box);
    default:
        return sizeof(SampleEntry);
    }
}

std::atomic<uint64_t> box_tree_generation{1};

Box *newBox(uint32_t type, uint32_t size) {
    size_t bytes = recordSize(type);
    auto *box = static_cast<Box *>(mp4_calloc(1, bytes));
    if (!box) {
        fprintf(stderr, "Fatal: out of memory\n");
        exit(1);
    }
    box->type = type;
    box->size = size;
    box->node_flags = BOX_HEAP | BOX_OWNS_ARRAYS | BOX_AUTO_SIZE;
    box->alloc_size = uint32_t(bytes);
    return box;
}

Box *extendBox(Box **pbox, size_t record_size) {
    Box *box = *pbox;
    if (box && !(box->node_flags & BOX_HEADER_ONLY))
        return box;
    if (record_size < sizeof(Box) || record_size > 0xFFFFFFFFu)
        return nullptr;
    if (box && !(box->node_flags & BOX_ON_STACK)) {
        if (record_size <= box->alloc_size)
            return box;
        void *p = mp4_realloc(box, record_size);
        if (!p) {
            fprintf(stderr, "%s: failed to realloc size=%zd\n", "extendBox", record_size);
            return nullptr;
        }
        box = static_cast<Box *>(p);
        treeChanged();
        // The header is always valid, even in a node whose allocated size was never recorded.
        size_t old = box->alloc_size < sizeof(Box) ? sizeof(Box) : box->alloc_size;
        memset(reinterpret_cast<uint8_t *>(box) + old, 0, record_size - old);
        box->alloc_size = uint32_t(record_size);
    } else {
        auto *fresh = static_cast<Box *>(mp4_calloc(1, record_size));
        if (!fresh)
            return nullptr;
        if (box)
            *fresh = *box;
        fresh->node_flags = uint8_t((fresh->node_flags | BOX_HEAP) & ~BOX_ON_STACK);
        fresh->alloc_size = uint32_t(record_size);
        box = fresh;
        treeChanged();
    }
    *pbox = box;
    return box;
}

// Frees the array a node owns, by type.
static void freeArrays(Box *box) {
    switch (box->type) {
    case fourcc("stts"):
        mp4_free(static_cast<Stts *>(box)->entries);
        break;
    case fourcc("ctts"):
        mp4_free(static_cast<Ctts *>(box)->entries);
        break;
    case fourcc("stss"):
        mp4_free(static_cast<Stss *>(box)->entries);
        break;
    case fourcc("stsz"):
        mp4_free(static_cast<Stsz *>(box)->entries);
        break;
    case fourcc("stz2"):
        mp4_free(static_cast<Stz2 *>(box)->entries);
        break;
    case fourcc("stsc"):
        mp4_free(static_cast<Stsc *>(box)->entries);
        break;
    case fourcc("stco"):
        mp4_free(static_cast<Stco *>(box)->entries);
        break;
    case fourcc("co64"):
        mp4_free(static_cast<Co64 *>(box)->entries);
        break;
    case fourcc("elst"):
        mp4_free(static_cast<Elst *>(box)->entries);
        break;
    case fourcc("stsh"):
        mp4_free(static_cast<Stsh *>(box)->entries);
        break;
    case fourcc("stdp"):
        mp4_free(static_cast<Stdp *>(box)->entries);
        break;
    case fourcc("padb"):
        mp4_free(static_cast<Padb *>(box)->entries);
        break;
    case fourcc("hdlr"):
        mp4_free(static_cast<Hdlr *>(box)->name);
        break;
    case fourcc("mdat"):
    case fourcc("free"):
    case fourcc("skip"):
    case fourcc("wide"):
        mp4_free(static_cast<DataBox *>(box)->data);
        break;
    case fourcc("chan"):
        mp4_free(static_cast<Chan *>(box)->descriptions);
        break;
    case fourcc("trun"):
        mp4_free(static_cast<Trun *>(box)->samples);
        break;
    case fourcc("tfra"):
        mp4_free(static_cast<Tfra *>(box)->entries);
        break;
    default:
        break; // esds/iods keep their URL bytes inside the record
    }
}

static void addToAncestors(Box *from, uint64_t delta) {
    for (Box *a = from; a; a = a->parent)
        a->size += delta;
}

static void subtractFromAncestors(Box *from, uint64_t delta) {
    for (Box *a = from; a; a = a->parent)
        a->size -= delta;
}

void deleteBox(Box *box) {
    if (!box)
        return;
    treeChanged();
    while (box->first_child)
        deleteBox(box->first_child);
    if (Box *parent = box->parent) {
        if (parent->first_child == box) {
            parent->first_child = box->next;
        } else {
            Box *prev = parent->first_child;
            while (prev && prev->next != box)
                prev = prev->next;
            if (prev)
                prev->next = box->next;
        }
        subtractFromAncestors(parent, box->size);
    }
    if (box->node_flags & BOX_OWNS_ARRAYS)
        freeArrays(box);
    if (box->node_flags & BOX_HEAP)
        mp4_free(box);
}

extern "C" Box *getParent(Box *box) {
    return box ? box->parent : nullptr;
}

extern "C" Box *getChild(Box *box, uint32_t type) {
    if (!box)
        return nullptr;
    for (Box *c = box->first_child; c; c = c->next)
        if (c->type == type)
            return c;
    return nullptr;
}

void addBox(Box *child, Box *parent) {
    if (!child || !parent)
        return;
    treeChanged();
    child->parent = parent;
    if (!parent->first_child) {
        parent->first_child = child;
    } else {
        Box *last = parent->first_child;
        while (last->next)
            last = last->next;
        last->next = child;
    }
    addToAncestors(parent, child->size);
}

void insertBoxAfter(Box *box, Box *after) {
    if (!box || !after)
        return;
    treeChanged();
    box->parent = after->parent;
    box->next = after->next;
    after->next = box;
    addToAncestors(box->parent, box->size);
}

extern "C" Box *rwSubBox(mp4_muxer *m, Box *box, Box *parent) {
    if (m) {
        m->parent = parent;
        box = rwBox(m, box);
        m->parent = nullptr;
        if (!box)
            return nullptr;
    }
    if (!parent)
        return box;
    addBox(box, parent);
    if (m && !is_reader(m)) {
        for (Box *a = parent; a; a = a->parent)
            updateBoxSize(m, a);
    }
    return box;
}

void updateBoxSize(mp4_muxer *m, Box *box) {
    uint64_t here = muxer_pos(m);
    if (is_reader(m)) {
        fprintf(stderr, "%s: Can't update box size when reading!\n", "updateBoxSize");
        return;
    }
    if (!box)
        return;
    if (box->data_pos < 8) {
        // No header lies before this position: the box was never written, and seeking to
        // data_pos - 8 would wrap to the far end of the stream.
        fprintf(stderr, "%s: %c%c%c%c was never written\n", "updateBoxSize", char(box->type >> 24),
                char(box->type >> 16), char(box->type >> 8), char(box->type));
        return;
    }
    if (!req64(box->size)) {
        muxer_seek(m, box->data_pos - 8);
        rw32as64(m, &box->size);
        muxer_seek(m, here);
        return;
    }
    uint32_t hsize = 0, htype = 0;
    if (box->data_pos >= 16) { // else there is no room for a placeholder or a 64-bit header
        muxer_seek(m, box->data_pos - 16);
        m->flags |= MP4_READER;
        rw32(m, &hsize);
        rw32(m, &htype);
        m->flags &= uint8_t(~(MP4_READER | MP4_END_OF_INPUT));
    }
    uint32_t pad = (m->flags & MP4_MOV) ? fourcc("wide") : fourcc("free");
    if (hsize == 8 && htype == pad) {
        // The placeholder in front and the old compact header become one 64-bit header, in one
        // write: two would leave, between them, a large-size marker in front of the old header,
        // read as a size of some 2^60 bytes.
        box->size += 8;
        uint8_t header[16] = {0, 0, 0, 1};
        for (int i = 0; i < 4; i++)
            header[4 + i] = uint8_t(box->type >> (24 - 8 * i));
        for (int i = 0; i < 8; i++)
            header[8 + i] = uint8_t(box->size >> (56 - 8 * i));
        muxer_seek(m, box->data_pos - 16);
        write_n(m, header, sizeof header);
        box->node_flags |= BOX_LARGE;
    } else if (hsize == 1 && htype == box->type) {
        muxer_seek(m, box->data_pos - 8);
        rw64(m, &box->size);
        box->node_flags |= BOX_LARGE;
    } else {
        fprintf(stderr, "%s: 64-bit failed  (size=%d type=%c%c%c%c)\n", "updateBoxSize", int(hsize),
                char(htype >> 24), char(htype >> 16), char(htype >> 8), char(htype));
    }
    muxer_seek(m, here);
}
