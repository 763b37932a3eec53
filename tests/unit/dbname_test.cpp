#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "config/dballoc.h"
#include "config/dbname.h"
#include "tests/support/kvc.h"
#include "tests/support/nsfixture.h"

// A component name becomes one directory entry, "/" and "\" escaped, and
// every entry reads back to the name it came from.
TEST(DbName, EntriesEscapeSlashAndBackslashAndReadBackSafely) {
    const struct { const char* name; const char* entry; bool both_ways; } cases[] = {
        {"a/b\\c", "a\\.b\\\\c", true},
        {"//", "\\.\\.", true},
        {"\\.", "\\\\.", true},   // a backslash before a dot is not a slash
        {"axb", "a\\xb", false},  // a backslash before another character is dropped
        {"abc", "abc\\", false},  // and so is a final one
    };
    for (const auto& c : cases) {
        std::string out(obname_2_fnlen(c.name) + 1, '#'), back(strlen(c.entry) + 1, '#');
        obname_2_fname(out.data(), c.name);
        EXPECT_TRUE(!c.both_ways || out == std::string(c.entry) + '\0') << c.entry;
        fname_2_obname(back.data(), c.entry);
        EXPECT_STREQ(back.c_str(), c.name);
    }
    vz_kvc* v = nullptr;
    vz_kvcstate st = 0;
    ASSERT_EQ(vz_kvcv_init(&v, &st), 0);
    for (const char* e : {"realm=NB", "type", "prog=a\\.b\\\\c", "a=b=c"})
        ASSERT_EQ(vzdb_dir2ob1(&v, &st, e), 0) << e;
    EXPECT_EQ(kvc_lines(v), (std::vector<std::string>{"realm=NB", "type=", "prog=a/b\\c", "a=b=c"}));
    vzdb_kvcfree(v);
}

// The current object is read once per process, so each case runs in a child.
TEST(DbPath, RelativeNamesFollowTheCurrentObjectReadOnceAbsoluteOnesDoNot) {
    for (const char* current : {"", "/realm=NB//x=a\\.b/"}) {
        run_in_child([current] {
            setenv("VZDB_CURRENT", current, 1);
            Kvc rel({{"program", "a/b"}}), abs({{"system", "x"}, {"realm", "NB"}});
            const std::string want = std::string("/var/opt/KORRbase/rtdb/") +
                                     (*current != '\0' ? "realm=NB/x=a\\.b/" : "") + "program=a\\.b";
            for (int round = 0; round < 2; round++) {
                char *r = nullptr, *a = nullptr;
                ASSERT_EQ(vzdb_ob2dir(rel.get(), &r) + vzdb_ob2dir(abs.get(), &a), 0);
                EXPECT_STREQ(r, want.c_str());
                EXPECT_STREQ(a, "/var/opt/KORRbase/rtdb/realm=NB");
                vzdb_strfree(r);
                vzdb_strfree(a);
                setenv("VZDB_CURRENT", "realm=Other", 1);  // too late to count
            }
        });
    }
}
