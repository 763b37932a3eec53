#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "config/dbob.h"
#include "config/dbtree.h"
#include "tests/support/kvc.h"
#include "tests/support/nsfixture.h"

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
