#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "config/dbob.h"
#include "config/dbtree.h"
#include "tests/support/kvc.h"
#include "tests/support/nsfixture.h"

namespace {

const std::string kRoot = "/var/opt/KORRbase/rtdb", kRealm = kRoot + "/realm=NB";

bool exists(const std::string& p)
{
    struct stat st;
    return lstat(p.c_str(), &st) == 0;
}

void touch(const std::string& p)
{
    FILE* f = fopen(p.c_str(), "w");
    ASSERT_NE(f, nullptr) << p;
    fclose(f);
}

}  // namespace

// Nothing is made or removed outside the database root, whatever the name.
TEST(DbTree, PathsOutsideTheDatabaseAreRefused) {
    run_in_private_dirs([] {
        ASSERT_EQ(mkdir(kRoot.c_str(), 0755), 0);
        for (const char* p : {"/var/opt/KORRbase", "/tmp/x=y", "/var/opt/KORRbase/rtdb/realm=NB/../../../x=y",
                              "/var/opt/KORRbase/rtdbx=y"}) {
            SCOPED_TRACE(p);
            EXPECT_EQ(vzdb_tree_make(p), 3);
            EXPECT_EQ(vzdb_tree_remove(p), 3);
        }
        EXPECT_EQ(vzdb_tree_remove(kRoot.c_str()), 3);
        EXPECT_FALSE(exists("/var/opt/KORRbase/x=y"));
        Kvc climb({{"system", "*"}, {"../..", "x"}});  // types are not escaped
        EXPECT_EQ(vzdb_ob_create(climb.get()), 3);
        EXPECT_EQ(vzdb_ob_delete(climb.get()), 3);
        EXPECT_FALSE(exists("/var/opt/..=x"));
    });
}

// Objects are made 0775 whatever the umask; a delete goes depth first and
// leaves what is not the database's: foreign files, links and mounts.
TEST(DbObject, CreateMakesEveryLevelAndDeleteLeavesForeignEntriesLinksAndMounts) {
    run_in_private_dirs([] {
        ASSERT_EQ(mkdir(kRoot.c_str(), 0755), 0);
        umask(022);
        Kvc deep({{"system", "*"}, {"realm", "NB"}, {"program", "Halyard"}, {"x", "a/b"}});
        ASSERT_EQ(vzdb_ob_create(deep.get()), 0);
        struct stat st;
        ASSERT_EQ(stat(kRealm.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode, S_IFDIR | 0775);
        EXPECT_TRUE(exists(kRealm + "/program=Halyard/x=a\\.b"));
        touch(kRealm + "/program=Halyard/=plist");
        touch(kRealm + "/=plist");
        touch(kRealm + "/foreign");
        ASSERT_EQ(mkdir("/var/opt/keep", 0755), 0);
        touch("/var/opt/keep/k=v");
        ASSERT_EQ(symlink("/var/opt/keep", (kRealm + "/link=1").c_str()), 0);
        ASSERT_EQ(mkdir((kRealm + "/mnt=1").c_str(), 0775), 0);
        ASSERT_EQ(mount("t", (kRealm + "/mnt=1").c_str(), "tmpfs", 0, "size=64k"), 0);
        touch(kRealm + "/mnt=1/k=v");

        Kvc realm({{"system", "*"}, {"realm", "NB"}});
        EXPECT_EQ(vzdb_ob_delete(realm.get()), 5);
        EXPECT_TRUE(exists(kRealm + "/foreign"));
        EXPECT_FALSE(exists(kRealm + "/=plist"));
        EXPECT_FALSE(exists(kRealm + "/program=Halyard"));
        EXPECT_TRUE(exists("/var/opt/keep/k=v"));
        EXPECT_TRUE(exists(kRealm + "/mnt=1/k=v"));
        ASSERT_EQ(umount((kRealm + "/mnt=1").c_str()), 0);
        ASSERT_EQ(unlink((kRealm + "/foreign").c_str()), 0);
        ASSERT_EQ(unlink((kRealm + "/link=1").c_str()), 0);
        EXPECT_EQ(vzdb_ob_delete(realm.get()), 0);
        EXPECT_FALSE(exists(kRealm));
        EXPECT_TRUE(exists(kRoot));
    });
}
