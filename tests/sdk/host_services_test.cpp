#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "vx/sdk.h"

namespace {

TEST(SysString, CopiesAndFrees) {
  VxChar* s = VxSysAllocString(VXT("Grüße"));
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(VxString(s), VxString(VXT("Grüße")));
  VxSysFreeString(s);
  VxChar* empty = VxSysAllocString(VXT(""));
  ASSERT_NE(empty, nullptr);
  EXPECT_EQ(empty[0], 0);
  VxSysFreeString(empty);
  EXPECT_EQ(VxSysAllocString(nullptr), nullptr);
  VxSysFreeString(nullptr);
}

TEST(HostFlags, ProjectPropertiesAreAbsentUntilSet) {
  double v = -7.0;
  EXPECT_EQ(VxGetProjectProperty(VXT("Project Frame World Size (X)"), &v), FALSE);
  EXPECT_EQ(v, -7.0);
  VxSetProjectProperty(VXT("Project Frame World Size (X)"), 2048.0);
  VxSetProjectProperty(VXT("Project Field Dominance"), 1.0);
  EXPECT_EQ(VxGetProjectProperty(VXT("Project Frame World Size (X)"), &v), TRUE);
  EXPECT_EQ(v, 2048.0);
  EXPECT_EQ(VxGetProjectProperty(VXT("project frame world size (x)"), &v), FALSE);
  EXPECT_EQ(VxGetProjectProperty(nullptr, &v), FALSE);
  EXPECT_EQ(VxGetProjectProperty(VXT("Project Field Dominance"), nullptr), FALSE);
}

TEST(MessageBox, DefaultWritesOneLineToStderrAndHandlersReplaceIt) {
#ifdef _WIN32
  GTEST_SKIP() << "the default on Windows is a real message box";
#endif
  testing::internal::CaptureStderr();
  VxMessageBox(VXT("Error Message"), VXT("Bad file \u00e9"));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Error Message: Bad file \xc3\xa9\n");

  std::vector<VxString> seen;
  VxSetMessageBoxHandler(
      [](const VxChar* caption, const VxChar* text, void* ctx) {
        static_cast<std::vector<VxString>*>(ctx)->push_back(VxString(caption) + VXT("|") + text);
      },
      &seen);
  testing::internal::CaptureStderr();
  VxMessageBox(VXT("Quick Time parser ERROR"), VXT("no decoder"));
  VxMessageBox(nullptr, nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(seen, (std::vector<VxString>{VXT("Quick Time parser ERROR|no decoder"), VXT("|")}));

  VxSetMessageBoxHandler(nullptr, nullptr);  // back to the default
  testing::internal::CaptureStderr();
  VxMessageBox(VXT("A"), VXT("B"));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "A: B\n");
}

}  // namespace
