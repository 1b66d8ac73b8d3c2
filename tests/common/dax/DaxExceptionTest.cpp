#include "common/dax/DaxException.h"

#include <gtest/gtest.h>
#include <string>

TEST(DaxException, InvalidParameterCarriesItsTextAndCodeOne)
{
    try {
        throw DaxInvalidParameterException("not an array");
    } catch (const DaxException& error) {
        EXPECT_STREQ(error.getMessage(), "not an array");
        EXPECT_EQ(error.getCode(), 1);
    }
}

TEST(DaxException, LongTextIsCutAt255BytesAndStillEnds)
{
    const std::string text(1000, 'x');
    EXPECT_EQ(DaxException(text.c_str(), 7).getMessage(), std::string(255, 'x'));
    EXPECT_EQ(DaxException(std::string(255, 'y').c_str(), 7).getMessage(), std::string(255, 'y'));
}

TEST(DaxException, NoTextIsAnEmptyOne)
{
    const DaxException error(nullptr, -5);
    EXPECT_STREQ(error.getMessage(), "");
    EXPECT_EQ(error.getCode(), -5);
}
