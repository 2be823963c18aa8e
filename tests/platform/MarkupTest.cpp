// The JSON form of records, on the client library's own record and on protobuf's.
#include "LogCapture.h"
#include "PorticoError.pb.h"
#include "ProtoToMarkup.h"

#include <google/protobuf/descriptor.pb.h>
#include <gtest/gtest.h>

using google::protobuf::DescriptorProto;
using google::protobuf::FieldDescriptorProto;
using google::protobuf::FieldOptions;
using ProtoToMarkup::FromJson;
using ProtoToMarkup::MarkupError;
using ProtoToMarkup::ToJson;

TEST(Markup, WritesNamesAsInTheSchemaAndOnlyWhatIsSet)
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

TEST(Markup, RefusesToWriteWhatCannotBeRead)
{
    for (const char* text : {"\xff", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xe2\x82", "ok\x80"})
    {
        DescriptorProto nested;
        nested.add_field()->set_name(text);
        EXPECT_THROW(ToJson(nested, true, false, false), MarkupError) << text;
        DescriptorProto list;
        list.add_reserved_name("fine");
        list.add_reserved_name(text);
        EXPECT_THROW(ToJson(list, true, false, false), MarkupError) << text;
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

TEST(Markup, UnknownFieldsAndEnumeratorsLeaveTheirFieldUnset)
{
    FieldDescriptorProto field;
    FromJson(R"({"name":"n","type":"TYPE_NEW","label":77,"unknown":{"a":[1,{"b":null}]},"number":null})", &field);
    EXPECT_EQ(field.ShortDebugString(), R"(name: "n")");
    FromJson(R"({"type":"TYPE_BOOL","label":1,"type_name":"t"})", &field);
    EXPECT_EQ(field.type(), FieldDescriptorProto::TYPE_BOOL);
    EXPECT_EQ(field.label(), FieldDescriptorProto::LABEL_OPTIONAL);
    EXPECT_FALSE(field.has_name()) << "the message is replaced, not merged into";
    FromJson(R"({"typeName":"t"})", &field);
    EXPECT_EQ(field.type_name(), "t");

    const LogCapture log;
    FromJson(R"({"label":"LABEL_LATER"})", &field);
    FromJson(R"({"label":"LABEL_LATER"})", &field);
    EXPECT_EQ(log.Count(DPrint::LEVEL_ERROR), 1U) << "told once, not with every record that holds it";
}

TEST(Markup, AnythingElseIsAnErrorAndChangesNothing)
{
    std::string deep;
    for (int level = 0; level < 100000; ++level)
    {
        deep += R"({"nested_type":[)";
    }
    const std::string texts[] = {"",
                                 " ",
                                 "null",
                                 "5",
                                 "\"x\"",
                                 "[1]",
                                 "[{\"name\":\"x\"}]",
                                 "{",
                                 R"({"name":"x"} x)",
                                 R"({"name":"x"}{})",
                                 R"({name:'x'})",
                                 R"({"name":"x",})",
                                 R"({"name":1})",
                                 R"({"name":["x"]})",
                                 R"({"name":{"x":1}})",
                                 R"({"field":"x"})",
                                 R"({"field":{"name":"x"}})",
                                 R"({"field":["x"]})",
                                 R"({"reserved_name":"x"})",
                                 R"({"reserved_name":["x",1]})",
                                 R"({"options":[]})",
                                 R"({"options":{"deprecated":"true"}})",
                                 R"({"options":{"deprecated":1}})",
                                 R"({"field":[{"number":1.5}]})",
                                 R"({"field":[{"number":99999999999}]})",
                                 R"({"field":[{"number":1e999}]})",
                                 R"({"name":"\ud800"})",
                                 "{\"name\":\"\xff\"}",
                                 "{\"name\":\"a\nb\"}",
                                 deep};
    for (const std::string& text : texts)
    {
        DescriptorProto message;
        message.set_name("kept");
        try
        {
            FromJson(text, &message);
            ADD_FAILURE() << text.substr(0, 60);
        }
        catch (const MarkupError& error)
        {
            EXPECT_LT(std::string(error.what()).size(), 400U);
            Portico::Error answer; // which travels on as JSON
            answer.set_message(error.what());
            EXPECT_NO_THROW(ToJson(answer, true, false, false)) << text.substr(0, 60);
        }
        EXPECT_EQ(message.ShortDebugString(), R"(name: "kept")") << text.substr(0, 60);
    }
}

TEST(Markup, UnwrapsTheRootOnlyWhereItIsTheSoleKey)
{
    Portico::Error error;
    FromJson(R"( {"Error" : {"code":3,"message":"}"} } )", &error, "Error");
    EXPECT_EQ(error.code(), 3);
    EXPECT_EQ(error.message(), "}");
    FromJson(R"({"Error":{"code":4},"code":5})", &error, "Error");
    EXPECT_EQ(error.code(), 5);
    FromJson(R"({"code":6})", &error, "Error");
    EXPECT_EQ(error.code(), 6);
    FromJson(R"({"Error":5})", &error, "Error"); // an unknown field
    EXPECT_EQ(error.ShortDebugString(), "");
    FromJson(R"({"Error":{"code":3}})", &error);
    EXPECT_FALSE(error.has_code());
    EXPECT_THROW(FromJson(R"([{"Error":{}}])", &error, "Error"), MarkupError);
}
