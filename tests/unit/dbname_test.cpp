#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "config/dballoc.h"
#include "config/dbname.h"
#include "config/dbob.h"
#include "shr/vzhome.h"
#include "tests/support/kvc.h"
#include "tests/support/nsfixture.h"

namespace {

std::string path_of(const vz_kvc* name)
{
    char* p = nullptr;
    int rc = vzdb_ob2dir(name, &p);
    std::string s = rc == 0 && p != nullptr ? p : "error " + std::to_string(rc);
    vzdb_strfree(p);
    return s;
}

std::string escape(const char* name)
{
    std::string out(obname_2_fnlen(name) + 1, '#');
    obname_2_fname(out.data(), name);
    EXPECT_EQ(out.back(), '\0') << "the escaped length does not fit what was written";
    out.pop_back();
    return out;
}

std::string unescape(const char* escaped)
{
    std::string out(strlen(escaped) + 1, '#');
    fname_2_obname(out.data(), escaped);
    return out.c_str();
}

}  // namespace

TEST(DbName, EntriesEscapeSlashAndBackslashAndReadBackSafely) {
    const struct { const char* name; const char* entry; bool both_ways; } cases[] = {
        {"a/b\\c", "a\\.b\\\\c", true},
        {"", "", true},
        {"//", "\\.\\.", true},
        {"\\.", "\\\\.", true},   // a backslash before a dot is not a slash
        {"axb", "a\\xb", false},  // backslash before another character is dropped
        {"abc", "abc\\", false},  // a final backslash is dropped
        {"\\", "\\\\\\", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.entry);
        if (c.both_ways) {
            EXPECT_EQ(obname_2_fnlen(c.name), strlen(c.entry));
            EXPECT_EQ(escape(c.name), c.entry);
        }
        EXPECT_EQ(unescape(c.entry), c.name);
    }
    EXPECT_EQ(obname_2_fnlen(nullptr), 0u);

    Kvc name({{"realm", "NB"}, {"type", nullptr}, {"program", "a/b\\c"}});
    size_t len = 0;
    const char* p = object_2_path(name.get(), &len);
    ASSERT_NE(p, nullptr);
    EXPECT_STREQ(p, "realm=NB/type=/program=a\\.b\\\\c");
    EXPECT_EQ(len, strlen(p));

    vz_kvc* v = nullptr;
    vz_kvcstate st = 0;
    ASSERT_EQ(vz_kvcv_init(&v, &st), 0);
    for (const char* e : {"realm=NB", "type", "type=", "prog=a\\.b\\\\c", "a=b=c", "=x"})
        ASSERT_EQ(vzdb_dir2ob1(&v, &st, e), 0) << e;
    EXPECT_EQ(kvc_lines(v), (std::vector<std::string>{"realm=NB", "type=", "type=", "prog=a/b\\c", "a=b=c", "=x"}));
    vzdb_kvcfree(v);
}

// The current object is fixed at the first conversion of a process, so each
// case runs in a fresh child.
TEST(DbPath, RelativeNamesFollowTheCurrentObjectReadOnceAbsoluteOnesDoNot) {
    const struct { const char* current; const char* expect; } cases[] = {
        {nullptr, "/var/opt/KORRbase/rtdb/program=Halyard"},
        {"", "/var/opt/KORRbase/rtdb/program=Halyard"},
        {"realm=NB", "/var/opt/KORRbase/rtdb/realm=NB/program=Halyard"},
        {"/realm=NB//x=a\\.b/", "/var/opt/KORRbase/rtdb/realm=NB/x=a\\.b/program=Halyard"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.current != nullptr ? c.current : "(unset)");
        run_in_child([&c] {
            if (c.current != nullptr)
                setenv("VZDB_CURRENT", c.current, 1);
            else
                unsetenv("VZDB_CURRENT");
            Kvc rel({{"program", "Halyard"}});
            EXPECT_EQ(path_of(rel.get()), c.expect);
            // Changing the variable now changes nothing in this process.
            setenv("VZDB_CURRENT", "realm=Other", 1);
            EXPECT_EQ(path_of(rel.get()), c.expect);
            std::string cur = c.expect;
            Kvc empty({});
            EXPECT_EQ(path_of(empty.get()), cur.substr(0, cur.rfind('/')));
            Kvc x({{"system", "x"}, {"realm", "NB"}});
            Kvc root({{"system", nullptr}});
            EXPECT_EQ(path_of(x.get()), "/var/opt/KORRbase/rtdb/realm=NB");
            EXPECT_EQ(path_of(root.get()), "/var/opt/KORRbase/rtdb");
        });
    }
}

TEST(DbPath, EnvironmentEntryLeadsBackToTheSameObject) {
    Kvc root({{"system", "*"}});
    Kvc prog({{"system", "*"}, {"realm", "NB"}, {"program", "a/b"}});
    const struct { const vz_kvc* name; const char* entry; const char* path; } cases[] = {
        {root.get(), "VZDB_CURRENT=", "/var/opt/KORRbase/rtdb"},
        {prog.get(), "VZDB_CURRENT=realm=NB/program=a\\.b", "/var/opt/KORRbase/rtdb/realm=NB/program=a\\.b"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.entry);
        run_in_child([&c] {
            setenv("VZDB_CURRENT", "realm=Elsewhere", 1);
            char* entry = nullptr;
            ASSERT_EQ(vzdb_ob_environ(c.name, &entry), 0);
            EXPECT_STREQ(entry, c.entry);
            vzdb_strfree(entry);
        });
        // A process started with that entry has this object as its current one.
        run_in_child([&c] {
            putenv(const_cast<char*>(c.entry));
            Kvc empty({});
            EXPECT_EQ(path_of(empty.get()), c.path);
            vz_kvc* cur = nullptr;
            ASSERT_EQ(vzdb_ob_current(&cur), 0);
            ASSERT_NE(cur, nullptr);
            EXPECT_STREQ(cur[0].key, "system");
            EXPECT_EQ(cur[0].value, nullptr);
            vzdb_kvcfree(cur);
        });
    }
}

TEST(DbErrstr, GivesTheTextOfEveryCode) {
    const struct { int code; const char* text; } cases[] = {
        {1, "out of memory"},
        {2, "no Vorzan home directory"},
        {3, "invalid object name"},
        {4, "no such object"},
        {5, "no privilege for operation"},
        {6, "error opening/creating property list"},
        {7, "error writing property list"},
        {8, "error creating file"},
        {9, "cannot acquire lock"},
        {10, "exceeded semaphore limit"},
        {0, "unknown error 0"},
        {11, "unknown error 11"},
        {-2147483647 - 1, "unknown error -2147483648"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.code);
        EXPECT_STREQ(vzdb_errstr(c.code), c.text);
    }
}

TEST(DbScratch, GrowsOnlyWhenAskedForMore) {
    char* buf = nullptr;
    size_t size = 0;
    ASSERT_EQ(vzdb_str_alloc(&buf, &size, 10), 0);
    EXPECT_EQ(size, 26u);
    memset(buf, 'x', size);   // all of it is usable
    char* before = buf;
    ASSERT_EQ(vzdb_str_alloc(&buf, &size, 26), 0);
    EXPECT_EQ(buf, before);
    ASSERT_EQ(vzdb_str_alloc(&buf, &size, 27), 0);
    EXPECT_EQ(size, 43u);
    memset(buf, 'y', size);
    vzdb_strfree(buf);
}

TEST(VzHome, CopiesTheHomeDirectoryCutToTheBuffer) {
    const struct { size_t size; const char* expect; } cases[] = {
        {14, "/opt/KORRlibs"},
        {13, "/opt/KORRlib"},   // the last byte is always the terminator
        {1, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.size);
        std::vector<char> buf(c.size + 1, '#');
        EXPECT_EQ(vzhome_get(buf.data(), c.size), buf.data());
        EXPECT_STREQ(buf.data(), c.expect);
        EXPECT_EQ(buf[c.size], '#') << "written past the buffer";
    }
}
