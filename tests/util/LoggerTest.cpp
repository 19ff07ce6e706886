// What the logger does on standard error, as long as no file configures it.
#include "logging/Logger.h"
#include "tests/support/LogCapture.h"
#include "veyrasvc/util/LogStatement.h"

#include <log4cplus/streams.h>

#include <gtest/gtest.h>

#include <streambuf>
#include <string>
#include <vector>

namespace Vantor::Sentrix {
namespace {

// A stream that buffers nothing, as standard error is: every piece would be a write of its own. It may have no room.
class Pieces : public std::basic_streambuf<log4cplus::tchar> {
public:
    Pieces() : m_before(log4cplus::tcerr.rdbuf(this)) {}
    ~Pieces() override { log4cplus::tcerr.rdbuf(m_before); }
    Pieces(const Pieces&) = delete;
    Pieces& operator=(const Pieces&) = delete;

    std::vector<std::string> m_written;
    bool m_full = false;

protected:
    std::streamsize xsputn(const char_type* text, std::streamsize length) override {
        if (m_full) {
            return 0;
        }
        m_written.emplace_back(text, text + length);
        return length;
    }
    int_type overflow(int_type character) override {
        const char_type one = traits_type::to_char_type(character);
        return xsputn(&one, 1) == 1 ? character : traits_type::eof();
    }

private:
    std::basic_streambuf<log4cplus::tchar>* const m_before;
};

TEST(LoggerTest, LinesComeInOnePieceWithoutRoutineAndAFullDiskCostsOnlyThoseOfItsTime) {
    GetLogger().setLogLevel(log4cplus::WARN_LOG_LEVEL); // its default
    Pieces pieces;
    LOG_WARN("first " << 1);
    pieces.m_full = true;
    LOG_WARN("while there is no room");
    pieces.m_full = false;
    LOG_INFO("below the level");
    LOG_ERROR_ROUTINE("of a healthy bus");
    LOG_WARN_ROUTINE_IF(true, "of a healthy bus");
    LOG_WARN_ROUTINE_IF(false, "of another");
    LOG_ERROR("last");
    ASSERT_EQ(pieces.m_written.size(), 3U);
    EXPECT_NE(pieces.m_written[0].find(" WARN  first 1 [LoggerTest.cpp:"), std::string::npos) << pieces.m_written[0];
    EXPECT_NE(pieces.m_written[1].find(" WARN  of another [LoggerTest.cpp:"), std::string::npos) << pieces.m_written[1];
    EXPECT_NE(pieces.m_written[2].find(" ERROR last [LoggerTest.cpp:"), std::string::npos) << pieces.m_written[2];
    EXPECT_EQ(pieces.m_written[2].back(), '\n');

    LogCapture capture; // every other appender gets the routine too
    LOG_ERROR_ROUTINE("of a healthy bus");
    EXPECT_EQ(capture.Errors("of a healthy bus"), 1);
}

} // namespace
} // namespace Vantor::Sentrix
