#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "config/dballoc.h"
#include "config/dbob.h"
#include "config/dbtree.h"
#include "tests/support/kvc.h"
#include "tests/support/nsfixture.h"

namespace {

constexpr const char* kRoot = "/var/opt/KORRbase/rtdb";
constexpr const char* kRealm = "/var/opt/KORRbase/rtdb/realm=NB";
constexpr const char* kProgram = "/var/opt/KORRbase/rtdb/realm=NB/program=Halyard";

bool exists(const std::string& p)
{
    struct stat st;
    return lstat(p.c_str(), &st) == 0;
}

mode_t mode_of(const std::string& p)
{
    struct stat st;
    return stat(p.c_str(), &st) == 0 ? st.st_mode : 0;
}

void touch(const std::string& p)
{
    FILE* f = fopen(p.c_str(), "w");
    ASSERT_NE(f, nullptr) << p;
    fputs("k v\n", f);
    fclose(f);
}

void make_root()
{
    ASSERT_EQ(mkdir(kRoot, 0755), 0);
}

const Kvc& own()
{
    static const Kvc name({{"system", "*"}, {"realm", "NB"}, {"program", "Halyard"}});
    return name;
}

}  // namespace

TEST(DbObject, CreateMakesEveryMissingLevelWithMode0775) {
    run_in_private_dirs([] {
        make_root();
        umask(022);  // the creation must not depend on the caller's umask
        int there = -1;
        ASSERT_EQ(vzdb_ob_test(own().get(), &there), 0);
        EXPECT_EQ(there, 0);
        ASSERT_EQ(vzdb_ob_create(own().get()), 0);
        EXPECT_EQ(mode_of(kRealm), S_IFDIR | 0775);
        EXPECT_EQ(mode_of(kProgram), S_IFDIR | 0775);
        EXPECT_EQ(umask(022), 022) << "the caller's umask was not given back";
        ASSERT_EQ(vzdb_ob_test(own().get(), &there), 0);
        EXPECT_EQ(there, 1);
        // Again: nothing changes.
        ASSERT_EQ(chmod(kProgram, 0700), 0);
        EXPECT_EQ(vzdb_ob_create(own().get()), 0);
        EXPECT_EQ(mode_of(kProgram), S_IFDIR | 0700);
    });
}

TEST(DbObject, CreateRefusesWithoutItsPlaces) {
    run_in_private_dirs([] {
        // No root below the base: nothing can be made.
        EXPECT_EQ(vzdb_ob_create(own().get()), 5);
        EXPECT_FALSE(exists(kRoot));
        // No base directory, or a plain file in its place.
        ASSERT_EQ(rmdir("/var/opt/KORRbase"), 0);
        EXPECT_EQ(vzdb_ob_create(own().get()), 2);
        touch("/var/opt/KORRbase");
        EXPECT_EQ(vzdb_ob_create(own().get()), 2);
    });
}

TEST(DbTree, PathsOutsideTheDatabaseAreRefused) {
    run_in_private_dirs([] {
        make_root();
        const char* outside[] = {
            "/var/opt/KORRbase",
            "/tmp/x=y",
            "/var/opt/KORRbase/rtdb/realm=NB/../../../x=y",
            "/var/opt/KORRbase/rtdbx=y",
        };
        for (const char* p : outside) {
            SCOPED_TRACE(p);
            EXPECT_EQ(vzdb_tree_make(p), 3);
            EXPECT_EQ(vzdb_tree_remove(p), 3);
        }
        EXPECT_EQ(vzdb_tree_remove(kRoot), 3);
        EXPECT_EQ(vzdb_tree_remove("/var/opt/KORRbase/rtdb/foreign"), 3);
        EXPECT_FALSE(exists("/var/opt/KORRbase/x=y"));
        EXPECT_FALSE(exists("/var/opt/KORRbase/rtdbx=y"));

        // Types are not escaped: one holding "/" must not climb out.
        Kvc climb({{"system", "*"}, {"../..", "x"}});
        EXPECT_EQ(vzdb_ob_create(climb.get()), 3);
        EXPECT_EQ(vzdb_ob_delete(climb.get()), 3);
        EXPECT_FALSE(exists("/var/opt/..=x"));
        Kvc no_type({{"system", "*"}, {"", "plist"}});
        EXPECT_EQ(vzdb_ob_create(no_type.get()), 3);

        int inside = -1;
        ASSERT_EQ(inside_vzdb("/var/opt/KORRbase/rtdb", &inside), 0);
        EXPECT_EQ(inside, 1);
        ASSERT_EQ(inside_vzdb("/var/opt/KORRbase/rtd", &inside), 0);
        EXPECT_EQ(inside, 0);
    });
}

TEST(DbObject, DeleteIsDepthFirstAndLeavesForeignEntriesLinksAndMounts) {
    run_in_private_dirs([] {
        make_root();
        Kvc deep({{"system", "*"}, {"realm", "NB"}, {"program", "Halyard"}, {"x", "a/b"}});
        ASSERT_EQ(vzdb_ob_create(deep.get()), 0);
        const std::string realm_dir = kRealm;
        touch(std::string(kProgram) + "/=plist");
        touch(realm_dir + "/=plist");
        touch(realm_dir + "/foreign");
        ASSERT_EQ(mkdir("/var/opt/keep", 0755), 0);
        touch("/var/opt/keep/k=v");
        ASSERT_EQ(symlink("/var/opt/keep", (realm_dir + "/link=1").c_str()), 0);
        ASSERT_EQ(mkdir((realm_dir + "/mnt=1").c_str(), 0775), 0);
        ASSERT_EQ(mount("t", (realm_dir + "/mnt=1").c_str(), "tmpfs", 0, "size=64k"), 0);
        touch(realm_dir + "/mnt=1/k=v");

        Kvc realm({{"system", "*"}, {"realm", "NB"}});
        EXPECT_EQ(vzdb_ob_delete(realm.get()), 5);
        EXPECT_TRUE(exists(realm_dir + "/foreign"));
        EXPECT_FALSE(exists(realm_dir + "/=plist"));
        EXPECT_FALSE(exists(kProgram));
        EXPECT_TRUE(exists("/var/opt/keep/k=v"));
        EXPECT_TRUE(exists(realm_dir + "/mnt=1/k=v"));

        ASSERT_EQ(umount((realm_dir + "/mnt=1").c_str()), 0);
        ASSERT_EQ(unlink((realm_dir + "/foreign").c_str()), 0);
        ASSERT_EQ(unlink((realm_dir + "/link=1").c_str()), 0);
        EXPECT_EQ(vzdb_ob_delete(realm.get()), 0);
        EXPECT_FALSE(exists(kRealm));
        EXPECT_TRUE(exists(kRoot));
        EXPECT_EQ(vzdb_ob_delete(realm.get()), 5);   // a missing object cannot be removed
    });
}

TEST(DbObject, OwnerGroupAndMode) {
    run_in_private_dirs([] {
        make_root();
        ASSERT_EQ(vzdb_ob_create(own().get()), 0);
        int u = 0, g = 0, m = 0;
        ASSERT_EQ(vzdb_ob_setugm(own().get(), -1, -1, -1), 0);
        ASSERT_EQ(vzdb_ob_getugm(own().get(), &u, &g, &m), 0);
        EXPECT_EQ(u, 0);
        EXPECT_EQ(g, 0);
        EXPECT_EQ(m, int(S_IFDIR | 0775));

        // File-type bits in the mode are ignored; -1 keeps the group.
        ASSERT_EQ(vzdb_ob_setugm(own().get(), 1234, -1, int(S_IFREG | 02750)), 0);
        ASSERT_EQ(vzdb_ob_getugm(own().get(), &u, &g, &m), 0);
        EXPECT_EQ(u, 1234);
        EXPECT_EQ(g, 0);
        EXPECT_EQ(m & 07777, 02750);
        EXPECT_TRUE(S_ISDIR(mode_t(m)));
        ASSERT_EQ(vzdb_ob_setugm(own().get(), -1, 5678, -1), 0);
        ASSERT_EQ(vzdb_ob_getugm(own().get(), &u, &g, &m), 0);
        EXPECT_EQ(u, 1234);
        EXPECT_EQ(g, 5678);

        Kvc missing({{"system", "*"}, {"realm", "none"}});
        EXPECT_EQ(vzdb_ob_setugm(missing.get(), 1, 1, 0777), 0);
        EXPECT_FALSE(exists("/var/opt/KORRbase/rtdb/realm=none"));
        ASSERT_EQ(vzdb_ob_getugm(missing.get(), &u, &g, &m), 0);
        EXPECT_EQ(u, -1);
        EXPECT_EQ(g, -1);
        EXPECT_EQ(m, -1);
    });
}

TEST(DbObject, ListGivesChildObjectsOnly) {
    run_in_private_dirs([] {
        make_root();
        Kvc realm({{"system", "*"}, {"realm", "NB"}});
        ASSERT_EQ(vzdb_ob_create(realm.get()), 0);
        touch(std::string(kRoot) + "/=plist");
        touch(std::string(kRoot) + "/foreign");
        ASSERT_EQ(mkdir((std::string(kRoot) + "/dir").c_str(), 0775), 0);
        ASSERT_EQ(mkdir((std::string(kRoot) + "/x=a\\.b\\\\c").c_str(), 0775), 0);
        ASSERT_EQ(mkdir((std::string(kRoot) + "/y=").c_str(), 0775), 0);

        Kvc root({{"system", "*"}});
        vz_kvc* children = nullptr;
        ASSERT_EQ(vzdb_ob_list(root.get(), &children), 0);
        std::vector<std::string> got = kvc_lines(children);
        vzdb_kvcfree(children);
        std::sort(got.begin(), got.end());
        EXPECT_EQ(got, (std::vector<std::string>{"realm=NB", "x=a/b\\c", "y="}));

        Kvc missing({{"system", "*"}, {"realm", "none"}});
        ASSERT_EQ(vzdb_ob_list(missing.get(), &children), 0);
        ASSERT_NE(children, nullptr);
        EXPECT_EQ(children[0].key, nullptr);
        vzdb_kvcfree(children);
    });
}
