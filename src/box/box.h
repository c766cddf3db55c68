// The in-memory box tree: a common header followed by one record per box type, named and laid
// out as ISO/IEC 14496-12 names them. Records are plain data: they are created zero-filled,
// moved with realloc while being read, and freed with the allocator of io.h.
#pragma once

#include "io.h"

#include <atomic>
#include <cstdint>

constexpr uint32_t fourcc(const char (&s)[5]) {
    return (uint32_t(uint8_t(s[0])) << 24) | (uint32_t(uint8_t(s[1])) << 16) |
           (uint32_t(uint8_t(s[2])) << 8) | uint32_t(uint8_t(s[3]));
}

// Bits of Box::node_flags.
enum : uint8_t {
    BOX_HEAP = 0x01,        // the node is heap memory
    BOX_OWNS_ARRAYS = 0x02, // the node owns the array or string of its type
    BOX_AUTO_SIZE = 0x04,   // built in memory: size is measured when written
    BOX_HEADER_ONLY = 0x08, // holds only the header until extended
    BOX_ON_STACK = 0x10,    // lives in the codec's temporary storage
    BOX_LARGE = 0x20,       // written with a 64-bit size: 16 header bytes before data_pos
};

struct Box {
    uint64_t size;
    uint32_t type;
    uint64_t data_pos;
    Box *first_child;
    Box *next;
    Box *parent;
    uint8_t node_flags;
    uint32_t alloc_size; // bytes allocated for the node, so that growth can zero-fill
};

struct FullBox : Box {
    uint8_t version;
    uint32_t flags;
};

// ---- movie, track and media boxes ------------------------------------------------------------

struct Ftyp : Box {
    uint32_t major_brand;
    uint32_t minor_version;
    uint32_t compatible_brands[6];
};

struct Mvhd : FullBox {
    uint64_t creation_time;
    uint64_t modification_time;
    uint32_t timescale;
    uint64_t duration;
    uint32_t rate;   // 16.16
    uint16_t volume; // 8.8
    uint32_t matrix[9];
    uint32_t next_track_ID;
};

struct Tkhd : FullBox {
    uint64_t creation_time;
    uint64_t modification_time;
    uint32_t track_ID;
    uint64_t duration;
    uint16_t layer;
    uint16_t alternate_group;
    uint16_t volume;
    uint32_t matrix[9];
    uint32_t width;  // 16.16
    uint32_t height; // 16.16
};

struct Mdhd : FullBox {
    uint64_t creation_time;
    uint64_t modification_time;
    uint32_t timescale;
    uint64_t duration;
    uint8_t language[3]; // 5-bit codes; language[2] is the first character
};

struct Hdlr : FullBox {
    uint32_t handler_type;
    char *name; // read: points behind the record, inside the node
};

struct Vmhd : FullBox {
    uint16_t graphicsmode;
    uint16_t opcolor[3];
};

struct Smhd : FullBox {
    uint16_t balance; // 8.8
};

struct Hmhd : FullBox {
    uint16_t maxPDUsize;
    uint16_t avgPDUsize;
    uint32_t maxbitrate;
    uint32_t avgbitrate;
};

struct Dref : FullBox {
    uint32_t entry_count;
};

struct Url : FullBox { // 'url ' and 'alis'
    char location[256];
};

struct Urn : FullBox {
    char name[255];
    char location[257];
};

struct ElstEntry {
    uint64_t segment_duration;
    int64_t media_time;
    int16_t media_rate_integer;
    int16_t media_rate_fraction;
};

struct Elst : FullBox {
    uint32_t entry_count;
    ElstEntry *entries;
};

struct DataBox : Box { // 'free', 'skip', 'wide', 'mdat'
    uint8_t *data;
};

// ---- sample tables ---------------------------------------------------------------------------

struct SttsEntry {
    uint32_t sample_count;
    uint32_t sample_delta;
};

struct Stts : FullBox {
    uint32_t entry_count;
    SttsEntry *entries;
};

struct CttsEntry {
    uint32_t sample_count;
    uint32_t sample_offset; // signed in version 1
};

struct Ctts : FullBox {
    uint32_t entry_count;
    CttsEntry *entries;
};

struct Stss : FullBox {
    uint32_t entry_count;
    uint32_t *entries; // 1-based sample numbers
};

struct Stsz : FullBox {
    uint32_t sample_size;
    uint32_t sample_count;
    uint32_t *entries; // null when sample_size is not 0
};

struct Stz2 : FullBox {
    uint8_t field_size;
    uint32_t sample_count;
    uint8_t *entries; // packed as on disk
};

struct StscEntry {
    uint32_t first_chunk;
    uint32_t samples_per_chunk;
    uint32_t sample_description_index;
};

struct Stsc : FullBox {
    uint32_t entry_count;
    StscEntry *entries;
    uint64_t chunk_end; // writer only: position just after the current chunk's last sample
};

struct Stco : FullBox {
    uint32_t entry_count;
    uint32_t *entries;
};

struct Co64 : FullBox {
    uint32_t entry_count;
    uint64_t *entries;
};

struct StshEntry {
    uint32_t shadowed_sample_number;
    uint32_t sync_sample_number;
};

struct Stsh : FullBox { // not decoded from files; dumped when built in memory
    uint32_t entry_count;
    StshEntry *entries;
};

struct Stdp : FullBox { // not decoded; one priority per sample (count: the handle's sample_count)
    uint16_t *entries;
};

struct Padb : FullBox { // not decoded; two 3-bit pad values per byte
    uint32_t sample_count;
    uint8_t *entries;
};

// ---- sample entries --------------------------------------------------------------------------

// One record for every sample entry: the layout used (visual, audio or plain) is chosen by the
// handler type of the track, not by the entry's code, so the record holds the fields of all.
struct SampleEntry : Box {
    uint16_t data_reference_index;
    // visual
    uint16_t width;
    uint16_t height;
    uint32_t horizresolution; // 16.16
    uint32_t vertresolution;  // 16.16
    uint16_t frame_count;
    uint8_t compressorname[32];
    uint16_t depth;
    // audio
    uint16_t version;
    uint16_t channelcount;
    uint16_t samplesize;
    uint16_t compressionID;
    uint32_t samplerate; // 16.16
    uint32_t samplesPerPacket;
    uint32_t bytesPerPacket;
    uint32_t bytesPerFrame;
    uint32_t bytesPerSample;
};

struct Stsd : FullBox {
    uint32_t entry_count;
};

enum { AVCC_DATA_MAX = 132 };

struct AvcC : Box {
    uint8_t configurationVersion;
    uint8_t AVCProfileIndication;
    uint8_t profile_compatibility;
    uint8_t AVCLevelIndication;
    uint8_t lengthSizeMinusOne;
    uint8_t numOfSequenceParameterSets;
    uint8_t numOfPictureParameterSets;
    uint16_t length[2];          // SPS length, then PPS length
    uint8_t data[AVCC_DATA_MAX]; // SPS bytes immediately followed by PPS bytes
};

struct Btrt : Box {
    uint32_t bufferSizeDB;
    uint32_t maxBitrate;
    uint32_t avgBitrate;
};

struct ChannelDescription {
    uint32_t ChannelLabel;
    uint32_t ChannelFlags;
    uint32_t Coordinates[3]; // IEEE single-precision bit patterns
};

struct Chan : FullBox {
    uint32_t ChannelLayoutTag;
    uint32_t ChannelBitmap;
    uint32_t NumberChannelDescriptions;
    ChannelDescription *descriptions;
};

struct Fiel : Box {
    uint8_t fieldCount;
    uint8_t fieldOrder;
};

// ---- fragments -------------------------------------------------------------------------------

struct Mehd : FullBox {
    uint64_t fragment_duration;
};

struct Trex : FullBox {
    uint32_t track_ID;
    uint32_t default_sample_description_index;
    uint32_t default_sample_duration;
    uint32_t default_sample_size;
    uint32_t default_sample_flags;
};

struct Mfhd : FullBox {
    uint32_t sequence_number;
};

struct Tfhd : FullBox {
    uint32_t track_ID;
    uint64_t base_data_offset;
    uint32_t sample_description_index;
    uint32_t default_sample_duration;
    uint32_t default_sample_size;
    uint32_t default_sample_flags;
};

struct TrunSample {
    uint32_t sample_duration;
    uint32_t sample_size;
    uint32_t sample_flags;
    uint32_t sample_composition_time_offset;
};

struct Trun : FullBox {
    uint32_t sample_count;
    int32_t data_offset;
    uint32_t first_sample_flags;
    TrunSample *samples;
};

struct TfraEntry {
    uint64_t time;
    uint64_t moof_offset;
    uint32_t traf_number;
    uint32_t trun_number;
    uint32_t sample_number;
};

struct Tfra : FullBox {
    uint32_t track_ID;
    uint8_t length_size_of_traf_num;
    uint8_t length_size_of_trun_num;
    uint8_t length_size_of_sample_num;
    uint32_t number_of_entry;
    TfraEntry *entries;
};

struct Mfro : FullBox {
    uint32_t size;
};

// ---- elementary stream descriptors -----------------------------------------------------------

enum { DSI_DATA_MAX = 128 };

struct DecoderSpecificInfo {
    uint8_t tag;
    uint32_t length; // as read, even when above DSI_DATA_MAX
    uint8_t data[DSI_DATA_MAX];
};

struct DecoderConfigDescriptor {
    uint8_t tag;
    uint32_t length;
    uint8_t objectTypeIndication;
    uint8_t streamType;
    uint8_t upStream;
    uint32_t bufferSizeDB;
    uint32_t maxBitrate;
    uint32_t avgBitrate;
    DecoderSpecificInfo decSpecificInfo;
    uint8_t present; // bit 0: decSpecificInfo
};

struct SLConfigDescriptor {
    uint8_t tag;
    uint32_t length;
    uint8_t predefined;
    uint8_t useAccessUnitStartFlag;
    uint8_t useAccessUnitEndFlag;
    uint8_t useRandomAccessPointFlag;
    uint8_t hasRandomAccessUnitOnlyFlag;
    uint8_t usePaddingFlag;
    uint8_t useTimeStampsFlag;
    uint8_t useIdleFlag;
    uint8_t durationFlag;
    uint32_t timeStampResolution;
    uint32_t OCRResolution;
    uint8_t timeStampLength;
    uint8_t OCRLength;
    uint8_t AU_Length;
    uint8_t instantBitrateLength;
    uint8_t degradationPriorityLength;
    uint8_t AU_seqNumLength;
    uint8_t packetSeqNumLength;
    uint32_t timeScale;
    uint16_t accessUnitDuration;
    uint16_t compositionUnitDuration;
    uint64_t startDecodingTimeStamp;
    uint64_t startCompositionTimeStamp;
};

struct ES_Descriptor {
    uint8_t tag;
    uint32_t length;
    uint16_t ES_ID;
    uint8_t streamDependenceFlag;
    uint8_t URL_Flag;
    uint8_t OCRstreamFlag;
    uint8_t streamPriority;
    uint16_t dependsOn_ES_ID;
    uint8_t URLlength;
    char URLstring[256]; // held inside the record: URLlength is at most 255
    uint16_t OCR_ES_Id;
    DecoderConfigDescriptor decConfigDescr;
    SLConfigDescriptor slConfigDescr;
    uint8_t present; // bit 0: decConfigDescr, bit 1: slConfigDescr
};

struct InitialObjectDescriptor {
    uint8_t tag;
    uint32_t length;
    uint16_t ObjectDescriptorID;
    uint8_t URL_Flag;
    uint8_t includeInlineProfileLevelFlag;
    uint8_t URLlength;
    uint8_t ODProfileLevelIndication;
    uint8_t sceneProfileLevelIndication;
    uint8_t audioProfileLevelIndication;
    uint8_t visualProfileLevelIndication;
    uint8_t graphicsProfileLevelIndication;
    ES_Descriptor esDescr;
    uint64_t end; // stream position of the end of the iods box
};

struct Esds : FullBox {
    ES_Descriptor es;
};

struct Iods : FullBox {
    InitialObjectDescriptor iod;
};

// ---- field primitives (fields.cpp) -----------------------------------------------------------

void rw8(mp4_muxer *m, uint8_t *p);
void rw16(mp4_muxer *m, uint16_t *p);
void rw24(mp4_muxer *m, uint32_t *p);
void rw32(mp4_muxer *m, uint32_t *p);
void rw64(mp4_muxer *m, uint64_t *p);
void rw32as64(mp4_muxer *m, uint64_t *p);
void rwExpandableSize(mp4_muxer *m, uint32_t *p);
void rwFullBox(mp4_muxer *m, FullBox *box);
void pre_defined(mp4_muxer *m, int bits, uint32_t value);
void reserved(mp4_muxer *m, int bits);
inline int req64(uint64_t v) {
    return v > 0xFFFFFFFFull ? 1 : 0;
}

// ---- box tree (tree.cpp) ---------------------------------------------------------------------

// Size of the full record of a box type (sizeof(SampleEntry) for codes without a record of
// their own, since the only such nodes built in memory are sample entries).
size_t recordSize(uint32_t type);
Box *newBox(uint32_t type, uint32_t size);
Box *extendBox(Box **box, size_t record_size);
void deleteBox(Box *box);
void addBox(Box *child, Box *parent);
void insertBoxAfter(Box *box, Box *after);
void updateBoxSize(mp4_muxer *m, Box *box);
// Moves on with every change to the shape of any box tree (a node linked, unlinked, freed or
// moved by realloc), so that a handle can keep pointers into its tree between calls and know
// when to look again. Shared by all handles: a change elsewhere only costs a fresh look.
extern std::atomic<uint64_t> box_tree_generation;
inline void treeChanged() {
    box_tree_generation.fetch_add(1, std::memory_order_relaxed);
}
// Path lookup: getPath(moov, "trak/mdia/minf/stbl") style helpers live with their users.

// ---- codec (codec.cpp and the layout units) --------------------------------------------------

Box *rwBox(mp4_muxer *m, Box *box);
uint64_t checkBoxSize(Box *box);
void rwDescriptor(mp4_muxer *m, uint8_t tag, void *record);
extern int show_resizing;
extern int show_actual_size;

// ---- box dump (dump.cpp) ---------------------------------------------------------------------

extern int indent;
void iprintf(const char *format, ...) __attribute__((format(printf, 1, 2)));
void printBox(mp4_muxer *m, Box *box);
void printDescriptor(uint8_t tag, const void *record);
