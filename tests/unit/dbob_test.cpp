// Database objects: their names as directories, and what is made and removed.
#include "tests/unit/unitkit.h"

#include <sys/mount.h>

#include "config/dballoc.h"
#include "config/dbname.h"
#include "config/dbob.h"
#include "config/dbtree.h"

// Nothing is made or removed outside the database root, whatever the name;
// objects are made 0775 whatever the umask; a delete goes depth first and
// leaves what is not the database's: foreign files, links and mounts.
TEST(DbObject, StaysInsideTheRootAndDeletesOnlyWhatIsTheDatabases) {
    run_in_private_dirs([] {
        const std::string root = "/var/opt/KORRbase/rtdb", realm = root + "/realm=NB";
        auto exists = [](const std::string& p) { struct stat st; return lstat(p.c_str(), &st) == 0; };
        ASSERT_EQ(mkdir(root.c_str(), 0755), 0);
        for (const char* p : {"/var/opt/KORRbase", "/tmp/x=y", "/var/opt/KORRbase/rtdb/realm=NB/../../../x=y",
                              "/var/opt/KORRbase/rtdbx=y"}) {
            EXPECT_EQ(vzdb_tree_make(p), 3) << p;
            EXPECT_EQ(vzdb_tree_remove(p), 3) << p;
        }
        EXPECT_EQ(vzdb_tree_remove(root.c_str()), 3);
        Kvc climb({{"system", "*"}, {"../..", "x"}});  // types are not escaped
        EXPECT_EQ(vzdb_ob_create(climb.get()) + vzdb_ob_delete(climb.get()), 6);
        EXPECT_FALSE(exists("/var/opt/KORRbase/x=y") || exists("/var/opt/..=x"));

        umask(022);
        Kvc deep({{"system", "*"}, {"realm", "NB"}, {"program", "Halyard"}, {"x", "a/b"}});
        ASSERT_EQ(vzdb_ob_create(deep.get()), 0);
        struct stat st;
        ASSERT_EQ(stat(realm.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode, S_IFDIR | 0775);
        EXPECT_TRUE(exists(realm + "/program=Halyard/x=a\\.b"));
        ASSERT_EQ(mkdir("/var/opt/keep", 0755) + mkdir((realm + "/mnt=1").c_str(), 0775), 0);
        ASSERT_EQ(mount("t", (realm + "/mnt=1").c_str(), "tmpfs", 0, "size=64k"), 0);
        ASSERT_EQ(symlink("/var/opt/keep", (realm + "/link=1").c_str()), 0);
        for (const std::string& f : {realm + "/program=Halyard/=plist", realm + "/=plist", realm + "/foreign",
                                     std::string("/var/opt/keep/k=v"), realm + "/mnt=1/k=v"})
            std::ofstream(f) << "k v\n";
        Kvc realm_name({{"system", "*"}, {"realm", "NB"}});
        EXPECT_EQ(vzdb_ob_delete(realm_name.get()), 5);
        EXPECT_FALSE(exists(realm + "/=plist") || exists(realm + "/program=Halyard"));
        EXPECT_TRUE(exists(realm + "/foreign") && exists("/var/opt/keep/k=v") && exists(realm + "/mnt=1/k=v"));
        ASSERT_EQ(umount((realm + "/mnt=1").c_str()), 0);
        ASSERT_EQ(unlink((realm + "/foreign").c_str()) + unlink((realm + "/link=1").c_str()), 0);
        EXPECT_EQ(vzdb_ob_delete(realm_name.get()), 0);
        EXPECT_TRUE(!exists(realm) && exists(root));
    });
}

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

// The current object is read once, at the first conversion of a process.
TEST(DbPath, RelativeNamesFollowTheCurrentObjectReadOnceAbsoluteOnesDoNot) {
    run_in_child([] {
        setenv("VZDB_CURRENT", "/realm=NB//x=a\\.b/", 1);
        Kvc rel({{"program", "a/b"}}), abs({{"system", "x"}, {"realm", "NB"}});
        for (int round = 0; round < 2; round++) {
            char *r = nullptr, *a = nullptr;
            ASSERT_EQ(vzdb_ob2dir(rel.get(), &r) + vzdb_ob2dir(abs.get(), &a), 0);
            EXPECT_STREQ(r, "/var/opt/KORRbase/rtdb/realm=NB/x=a\\.b/program=a\\.b");
            EXPECT_STREQ(a, "/var/opt/KORRbase/rtdb/realm=NB");
            vzdb_strfree(r);
            vzdb_strfree(a);
            setenv("VZDB_CURRENT", "realm=Other", 1);  // too late to count
        }
    });
}
