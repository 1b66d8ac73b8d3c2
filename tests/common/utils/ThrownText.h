#pragma once

#include "common/dax/DaxException.h"

#include <gtest/gtest.h>
#include <string>

namespace zel::test {

/// @return the text of the DaxInvalidParameterException that the call must end with
template <class Call>
std::string thrownText(Call call)
{
    try {
        call();
    } catch (const DaxInvalidParameterException& error) {
        EXPECT_EQ(error.getCode(), 1);
        return error.getMessage();
    }
    ADD_FAILURE() << "nothing was thrown";
    return "(nothing)";
}

} // namespace zel::test
