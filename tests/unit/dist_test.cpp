// The manual pages the package installs format without a warning and carry
// the version the daemon reports.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "nversion.h"
#include "tests/support/lab.h"
#include "tests/support/paths.h"

TEST(ManPages, FormatWithoutWarningsAndShowTheVersion)
{
    const std::string version = std::string("\"Halyard ") + smbv_string + " " + smbv_variant + "\"";
    for (const char* page : {"halyard.8", "config.vz.5", "halyardctl.1", "halyard-nda.8"}) {
        SCOPED_TRACE(page);
        std::string path = std::string(halyard_build_dir()) + "/man/" + page;
        std::string text = lab_read_file(path);
        EXPECT_NE(text.substr(0, text.find('\n')).find(version), std::string::npos);
        FILE* p = popen(("groff -ww -man -z '" + path + "' 2>&1; echo status $?").c_str(), "r");
        ASSERT_NE(p, nullptr);
        std::string out;
        char buf[4096];
        for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0 && out.size() < 65536;)
            out.append(buf, n);
        pclose(p);
        EXPECT_EQ(out, "status 0\n");
    }
}
