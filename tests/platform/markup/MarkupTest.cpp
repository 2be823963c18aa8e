// The JSON form of records, tested with Portico::Error and with protobuf's own messages.
#include "tests/support/LogCapture.h"
#include <PorticoError.pb.h>
#include <ProtoToMarkup.h>

#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/timestamp.pb.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <initializer_list>
#include <random>
#include <string>

using google::protobuf::DescriptorProto;
using google::protobuf::FieldDescriptorProto;
using nlohmann::ordered_json;
using ProtoToMarkup::FromJson;
using ProtoToMarkup::MarkupError;
using ProtoToMarkup::ToJson;

TEST(Markup, SetFieldsAreWrittenWithSchemaNames)
{
    FieldDescriptorProto field;
    EXPECT_EQ(ToJson(field, true, false, false), "{}");
    field.set_name("a\"\xc3\xa9\n");
    field.set_type_name("");
    field.set_type(FieldDescriptorProto::TYPE_BOOL);
    field.mutable_options();
    EXPECT_EQ(ToJson(field, true, false, false), R"({"name":"a\"é\n","type":"TYPE_BOOL","type_name":"","options":{}})");
    EXPECT_EQ(ToJson(field, true, false, true), R"({"name":"a\"é\n","type":8,"type_name":"","options":{}})");

    Portico::Error error;
    error.set_code(-5);
    EXPECT_EQ(ToJson(error, false, false, false), "{\n \"code\": -5\n}");
    EXPECT_EQ(ToJson(error, true, true, false), R"({"code":-5,"subcode":0,"message":"","guid":""})");
}

/// The compact form is our writer's, the indented form protobuf's: they differ in white space only.
TEST(Markup, CompactAndIndentedFormsAreEqual)
{
    FieldDescriptorProto field;
    DescriptorProto type;
    google::protobuf::FileDescriptorProto file;
    google::protobuf::DescriptorProto::descriptor()->file()->CopyTo(&file); // a large record, four levels deep
    type.add_reserved_name("\x01\b\f\n\r\t\x1f \\ \" / < \x7f \u00e9 \u20ac \U0001f600");
    type.add_extension_range()->set_start(-2147483648);
    *file.add_message_type() = type;
    google::protobuf::UninterpretedOption option; // bytes, a double, and integers of 64 bits
    option.set_positive_int_value(18446744073709551615U);
    option.set_negative_int_value(-9223372036854775807);
    *file.mutable_options()->add_uninterpreted_option() = option;
    option.set_double_value(0.1);
    option.set_string_value("\xff\"");
    google::protobuf::Timestamp stamp; // has a special JSON form
    stamp.set_seconds(1);
    for (const google::protobuf::Message* record :
         std::initializer_list<const google::protobuf::Message*>{&file, &option, &stamp, &field})
    {
        for (const bool enumsAsNumbers : {false, true})
        {
            const std::string line = ToJson(*record, true, false, enumsAsNumbers);
            EXPECT_EQ(ordered_json::parse(line), ordered_json::parse(ToJson(*record, false, false, enumsAsNumbers)));
            EXPECT_EQ(line.find('\n'), std::string::npos);
        }
    }
}

/// A long list is written from a cache of unchanged elements, whatever was added, removed, changed or moved.
TEST(Markup, LongListEqualsItsElements)
{
    std::mt19937 random(1);
    DescriptorProto list;
    for (int round = 0; round < 2'000; ++round)
    {
        auto& rows = *list.mutable_field();
        const int at = rows.empty() ? 0 : static_cast<int>(random() % static_cast<std::size_t>(rows.size()));
        const auto what = random() % 100;
        if (what < 30 || rows.size() < 12)
        {
            rows.Add();
        }
        else if (what < 60)
        {
            rows.Mutable(at)->set_number(static_cast<int>(random() % 8));
        }
        else if (what < 75)
        {
            rows.SwapElements(at, rows.size() - 1);
        }
        else
        {
            rows.DeleteSubrange(at, std::min<int>(static_cast<int>(random() % 12), rows.size() - at));
        }
        std::string expected;
        for (const FieldDescriptorProto& row : rows)
        {
            expected += (expected.empty() ? "" : ",") + ToJson(row, true, false, what % 2 == 0);
        }
        ASSERT_EQ(ToJson(list, true, false, what % 2 == 0), "{\"field\":[" + expected + "]}") << round;
        if (what == 0) // an exception in the middle of a list drops the cache
        {
            DescriptorProto broken = list;
            broken.mutable_field(broken.field_size() - 1)->set_name("\xff");
            ASSERT_THROW(ToJson(broken, true, false, false), MarkupError);
        }
    }
}

TEST(Markup, InvalidUtf8OrMissingFieldsAreNotWritten)
{
    for (const char* text : {"\xff", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xe2\x82", "ok\x80"})
    {
        DescriptorProto record;
        record.add_nested_type()->add_reserved_name(text);
        EXPECT_THROW(ToJson(record, true, false, false), MarkupError) << text;
    }
    Portico::Error error;
    error.set_message("\xf4\x8f\xbf\xbf \xed\x9f\xbf \xee\x80\x80");
    Portico::Error again;
    FromJson(ToJson(error, true, false, false), &again);
    EXPECT_EQ(again.message(), error.message());

    google::protobuf::UninterpretedOption::NamePart incomplete;
    incomplete.set_name_part("x");
    EXPECT_THROW(ToJson(incomplete, true, false, false), MarkupError);
    EXPECT_THROW(FromJson(R"({"name_part":"x"})", &incomplete), MarkupError);
}

TEST(Markup, UnknownFieldsAndEnumeratorsAreSkipped)
{
    const LogCapture log;
    FieldDescriptorProto field;
    FromJson(R"({"name":"n","type":"TYPE_NEW","label":77,"unknown":{"a":[1,{"b":null}]},"number":null})", &field);
    EXPECT_EQ(field.ShortDebugString(), R"(name: "n")");
    FromJson(R"({"type":"TYPE_BOOL","label":1,"typeName":"t"})", &field); // replaces
    EXPECT_EQ(field.ShortDebugString(), R"(label: LABEL_OPTIONAL type: TYPE_BOOL type_name: "t")");
    FromJson(R"({"type":4294967296,"label":"1","number":"7","extendee":"first","extendee":"x"})", &field);
    EXPECT_EQ(field.ShortDebugString(), R"(extendee: "x" number: 7 label: LABEL_OPTIONAL)");
    DescriptorProto lists; // unset elements are dropped, and the last of two lists counts
    FromJson(R"({"reserved_name":["a"],"field":[null,{"type":"TYPE_NEW"}],"reserved_name":["b",null]})", &lists);
    EXPECT_EQ(lists.ShortDebugString(), R"(field { } reserved_name: "b")");
    const std::size_t before = log.Count(DPrint::LEVEL_ERROR);
    FromJson(R"({"label":"LABEL_LATER"})", &field);
    FromJson(R"({"label":"LABEL_LATER"})", &field);
    EXPECT_EQ(log.Count(DPrint::LEVEL_ERROR), before + 1) << "logged once per value";
}

TEST(Markup, InvalidTextThrowsAndKeepsTheMessage)
{
    std::string deep;
    for (int level = 0; level < 100000; ++level)
    {
        deep += R"({"nested_type":[)";
    }
    std::vector<std::string> texts = {"",  "null", "\xef\xbb\xbf{}", std::string("{}\0{}", 5), R"([{"name":"x"}])",
                                      "{", deep};
    for (const char* member :
         {R"("name":1)", R"("name":{"x":1})", R"("name":"x",)", R"("name":"x"} x)", R"("name":"\ud800")",
          "\"name\":\"\xff\"", R"("field":{"name":"x"})", R"("field":["x"])", R"("field":[{"number":1.5}])",
          R"("field":[{"type":1.5}])", R"("field":[{"number":99999999999}])", R"("reserved_name":["x",1])",
          R"("reserved_name":[["x"]])", R"("options":{"deprecated":1})"})
    {
        texts.push_back(std::string("{") + member + "}");
    }
    for (const std::string& text : texts)
    {
        const std::string start = text.substr(0, 60);
        DescriptorProto message;
        message.set_name("kept");
        Portico::Error answer; // is sent as JSON
        try
        {
            FromJson(text, &message);
            ADD_FAILURE() << start;
        }
        catch (const MarkupError& error)
        {
            answer.set_message(error.what());
        }
        EXPECT_LT(ToJson(answer, true, false, false).size(), 500U) << start;
        EXPECT_EQ(message.ShortDebugString(), R"(name: "kept")") << start;
    }
}

TEST(Markup, RootNameIsUnwrappedIfItIsTheOnlyKey)
{
    const char* const rows[][2] = {{R"( {"Error" : {"code":3,"message":"}"} } )", R"(code: 3 message: "}")"},
                                   {R"({"Error":{"code":4},"code":5})", "code: 5"},
                                   {R"({"code":6})", "code: 6"},
                                   {R"({"Error":5})", ""}}; // an unknown field
    Portico::Error error;
    for (const auto& [text, content] : rows)
    {
        FromJson(text, &error, "Error");
        EXPECT_EQ(error.ShortDebugString(), content);
    }
    FromJson(R"({"Error":{"code":3}})", &error);
    EXPECT_FALSE(error.has_code());
    EXPECT_THROW(FromJson(R"([{"Error":{}}])", &error, "Error"), MarkupError);
}
