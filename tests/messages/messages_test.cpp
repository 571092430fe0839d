#include <torvel/messages.hpp>

#include <gtest/gtest.h>

#include <string>
#include <thread>

namespace torvel {
namespace {

TEST(Messages, go_to_the_standard_streams_unless_the_thread_captures_them) {
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    print_message("torvel: %s %d\n", "first", 1);
    print_progress("rank %d\n", 3);
    std::string outer_text, inner_text;
    {
        message_capture outer;
        print_message("torvel: %s\n", "kept");
        {
            message_capture inner;
            print_message("torvel: inner %.1f\n", 2.5);
            inner_text = inner.text();
        }
        print_progress("dropped\n");
        print_message("torvel: %s\n", std::string(300, 'x').c_str());  // longer than any buffer
        outer_text = outer.text();
    }
    print_message("torvel: after\n");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "rank 3\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "torvel: first 1\ntorvel: after\n");
    EXPECT_EQ(inner_text, "torvel: inner 2.5\n");
    EXPECT_EQ(outer_text, "torvel: kept\ntorvel: " + std::string(300, 'x') + "\n");
}

TEST(Messages, of_threads_running_at_once_stay_apart) {
    std::string texts[2];
    auto talk = [&](int k) {
        message_capture capture;
        for (int i = 0; i < 2000; ++i) print_message("%d", k);
        texts[k] = capture.text();
    };
    std::thread other(talk, 1);
    talk(0);
    other.join();
    EXPECT_EQ(texts[0], std::string(2000, '0'));
    EXPECT_EQ(texts[1], std::string(2000, '1'));
}

}  // namespace
}  // namespace torvel
