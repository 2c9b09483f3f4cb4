#pragma once

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <cstdlib>

namespace qel::test {

/// Lets a test fail in which GLib or GStreamer complain of how they are used.
inline void OnLog(const gchar* domain, GLogLevelFlags level, const gchar* text, gpointer data) {
    constexpr auto kComplaints = static_cast<unsigned>(G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING);
    if ((static_cast<unsigned>(level) & kComplaints) == 0) {
        g_log_default_handler(domain, level, text, data);
    } else if (testing::UnitTest::GetInstance()->current_test_info() != nullptr) {
        ADD_FAILURE() << domain << ": " << text;
    } else {
        g_log_default_handler(domain, level, text, data);
        std::abort();  // a process of its own, whose end is looked at
    }
}

/// Starts GStreamer without looking for the plugins of this machine, which no test needs.
inline void InitWithoutPlugins() {
    ::setenv("GST_PLUGIN_SYSTEM_PATH_1_0", "", 1);
    ::setenv("GST_PLUGIN_PATH_1_0", "", 1);
    ::setenv("GST_REGISTRY_1_0", "/dev/null/none", 1);  // where not even root can make one
    gst_init(nullptr, nullptr);
    (void)g_log_set_default_handler(OnLog, nullptr);
}

}  // namespace qel::test
