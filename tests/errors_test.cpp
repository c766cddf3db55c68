// Error codes: the handle's own code, the fall-back to the linked handle, and the setter.
#include "io.h"

#include <gtest/gtest.h>

#include <string>

namespace {

struct Pair {
    mp4_muxer *a; // the handle a caller holds
    mp4_muxer *b; // its linked half
    explicit Pair(bool returned_is_reader) {
        a = returned_is_reader ? mp4_reader_create() : mp4_writer_create();
        b = returned_is_reader ? mp4_writer_create() : mp4_reader_create();
        a->linked = b;
    }
    ~Pair() { mp4_delete(a); }
};

std::string text(const char *s) {
    return s ? s : "(null)";
}

} // namespace

TEST(Errors, FreshAndNullHandlesReportNothing) {
    mp4_muxer *m = mp4_writer_create();
    EXPECT_EQ(mp4_get_error(m), nullptr);
    EXPECT_EQ(mp4_get_error_code(m), 0u);
    EXPECT_EQ(mp4_was_write_error(m), 0);
    mp4_delete(m);
    EXPECT_EQ(mp4_get_error(nullptr), nullptr);
    EXPECT_EQ(mp4_get_error_code(nullptr), 0u);
}

TEST(Errors, EveryCodeHasItsText) {
    const char *expected[] = {"seek out of range",
                              "failed to allocate memory",
                              "bad input",
                              "cannot write null box",
                              "recursion limit reached",
                              "buffer overflow",
                              "remux failed to find mdat",
                              "write failed",
                              "maximum size limit reached",
                              "file open failed"};
    mp4_muxer *m = mp4_reader_create();
    for (int code = 1; code <= 10; code++) {
        mp4_set_error(m, code);
        EXPECT_EQ(text(mp4_get_error(m)), expected[code - 1]) << code;
        EXPECT_EQ(mp4_get_error_code(m), uint32_t(code));
        EXPECT_EQ(mp4_was_write_error(m), 1) << "every code counts, code " << code;
    }
    mp4_delete(m);
}

TEST(Errors, LinkedHandleFailureShowsOnTheReturnedHandle) {
    for (bool returned_is_reader : {true, false}) {
        SCOPED_TRACE(returned_is_reader ? "defragmenting shape" : "refragmenting shape");
        Pair p(returned_is_reader);
        p.b->error = MP4_ERR_WRITE;
        EXPECT_EQ(mp4_get_error_code(p.a), 8u);
        EXPECT_EQ(text(mp4_get_error(p.a)), "write failed");
        EXPECT_EQ(mp4_was_write_error(p.a), 1);
        EXPECT_EQ(p.a->error, 0);

        // The other way round: the returned handle's failure is not the linked handle's.
        p.b->error = 0;
        p.a->error = MP4_ERR_NOMEM;
        EXPECT_EQ(mp4_get_error_code(p.a), 2u);
        EXPECT_EQ(mp4_get_error_code(p.b), 0u);
        EXPECT_EQ(mp4_get_error(p.b), nullptr);
        EXPECT_EQ(mp4_was_write_error(p.b), 0);
    }
}

TEST(Errors, OwnCodeWinsOverTheLinkedOne) {
    Pair p(true);
    p.a->error = MP4_ERR_BAD_INPUT;
    p.b->error = MP4_ERR_WRITE;
    EXPECT_EQ(mp4_get_error_code(p.a), 3u);
    EXPECT_EQ(text(mp4_get_error(p.a)), "bad input");
}

TEST(Errors, SetErrorActsOnTheGivenHandleOnly) {
    Pair p(false);
    p.a->error = MP4_ERR_BAD_INPUT;
    p.b->error = MP4_ERR_WRITE;

    mp4_set_error(p.a, 0); // clears the own code: the linked one shows through
    EXPECT_EQ(p.a->error, 0);
    EXPECT_EQ(p.b->error, MP4_ERR_WRITE);
    EXPECT_EQ(mp4_get_error_code(p.a), 8u);
    EXPECT_EQ(text(mp4_get_error(p.a)), "write failed");

    mp4_set_error(p.a, 11); // no text of its own: the text falls through, the code does not
    EXPECT_EQ(mp4_get_error_code(p.a), 11u);
    EXPECT_EQ(text(mp4_get_error(p.a)), "write failed");

    mp4_set_error(p.a, 0x105); // low 8 bits
    EXPECT_EQ(p.a->error, 5);
    EXPECT_EQ(p.b->error, MP4_ERR_WRITE);
}

TEST(Errors, CodeAboveTenWithoutLinkHasNoText) {
    mp4_muxer *m = mp4_writer_create();
    mp4_set_error(m, 11);
    EXPECT_EQ(mp4_get_error(m), nullptr);
    EXPECT_EQ(mp4_get_error_code(m), 11u);
    EXPECT_EQ(mp4_was_write_error(m), 1);
    mp4_set_error(m, 0);
    EXPECT_EQ(mp4_was_write_error(m), 0);
    mp4_delete(m);
}

TEST(Errors, FallbackFollowsTheChainOfLinks) {
    mp4_muxer *a = mp4_writer_create();
    mp4_muxer *b = mp4_reader_create();
    mp4_muxer *c = mp4_writer_create();
    a->linked = b;
    b->linked = c;
    c->error = MP4_ERR_OPEN;
    EXPECT_EQ(mp4_get_error_code(a), 10u);
    EXPECT_EQ(text(mp4_get_error(a)), "file open failed");
    b->error = 12; // above 10: its code decides the code, the text passes on
    EXPECT_EQ(mp4_get_error_code(a), 12u);
    EXPECT_EQ(text(mp4_get_error(a)), "file open failed");
    mp4_delete(a); // deletes b, which deletes c
}
