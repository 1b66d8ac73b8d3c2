#include "common/dax/DaxSatellite.h"

#include <gtest/gtest.h>
#include <string>

using zel::dax::OwnedVariant;

namespace {

/// Answers code 0 and a copy of the arguments.
class EchoingSatellite : public DaxSatellite
{
public:
    explicit EchoingSatellite(bool& deleted) : m_deleted(deleted) {}
    ~EchoingSatellite() override { m_deleted = true; }

    long call(const char* service, const char* method, const tagVARIANT& arguments,
              tagVARIANT& retcode, tagVARIANT& results) override
    {
        called = std::string(service) + "." + method;
        retcode.vt = VT_I4;
        retcode.lVal = 0;
        return VariantCopy(&results, &arguments);
    }

    std::string called;

private:
    bool& m_deleted;
};

} // namespace

TEST(DaxSatellite, CalleeFillsWhatTheCallerClears)
{
    bool deleted = false;
    auto* echo = new EchoingSatellite(deleted);
    DaxSatellite* satellite = echo;
    OwnedVariant arguments;
    arguments.bstrVal = SysAllocString("station 5");
    arguments.vt = VT_BSTR;
    {
        OwnedVariant retcode;
        OwnedVariant results;
        EXPECT_EQ(satellite->call("Any", "getWindleContent", arguments, retcode, results), 0);
        EXPECT_EQ(echo->called, "Any.getWindleContent");
        EXPECT_EQ(retcode.vt, VT_I4);
        ASSERT_EQ(results.vt, VT_BSTR);
        EXPECT_STREQ(results.bstrVal, "station 5");
        EXPECT_NE(results.bstrVal, arguments.bstrVal);
    }
    delete satellite;
    EXPECT_TRUE(deleted);
}
