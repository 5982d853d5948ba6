// gst-inspect-1.0 finds zvrsrc in the build tree and documents every property of its own.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdio.h>

#include <string>

#include "gst_test_support.h"

namespace {

using ::testing::HasSubstr;

std::string runInspect() {
  std::string command =
      std::string("env GST_PLUGIN_PATH='") + ZVR_GST_PLUGIN_DIR + "' GST_PLUGIN_SYSTEM_PATH_1_0='" +
      ZVR_GST_SYSTEM_PLUGIN_DIR + "' GST_REGISTRY='" + ZVR_GST_REGISTRY +
      "' GST_REGISTRY_FORK=no GST_TRACERS= " + ZVR_GST_INSPECT_ENV + " gst-inspect-1.0 zvrsrc 2>&1";
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return "";
  std::string output;
  char buffer[4096];
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) output.append(buffer, n);
  EXPECT_EQ(pclose(pipe), 0) << output;
  return output;
}

TEST(ZvrSrcInspect, GstInspectDocumentsEveryProperty) {
  const std::string output = runInspect();
  EXPECT_THAT(output, HasSubstr("zvr+file"));
  EXPECT_THAT(output, HasSubstr("zvr+http"));
  EXPECT_THAT(output, HasSubstr("zvr+https"));
  EXPECT_THAT(output, HasSubstr("Availability: Sometimes"));
  GstElementFactory* factory = gst_element_factory_find("zvrsrc");
  ASSERT_NE(factory, nullptr);
  GstElement* element = gst_element_factory_create(factory, nullptr);
  guint count = 0;
  GParamSpec** specs = g_object_class_list_properties(G_OBJECT_GET_CLASS(element), &count);
  int own = 0;
  for (guint i = 0; i < count; ++i) {
    if (specs[i]->owner_type != G_OBJECT_TYPE(element)) continue;
    ++own;
    const std::string name = g_param_spec_get_name(specs[i]);
    const std::string blurb = g_param_spec_get_blurb(specs[i]);
    EXPECT_GT(blurb.size(), 30u) << name;
    EXPECT_THAT(output, HasSubstr(name + " ")) << name;
    EXPECT_THAT(output, HasSubstr(blurb)) << name;
  }
  EXPECT_EQ(own, 5);
  g_free(specs);
  gst_object_unref(gst_object_ref_sink(element));
  gst_object_unref(factory);
}

}  // namespace
