// The JSON form of records, on the client library's own record and on protobuf's.
#include "LogCapture.h"
#include "PorticoError.pb.h"
#include "ProtoToMarkup.h"

#include <google/protobuf/descriptor.pb.h>
#include <gtest/gtest.h>

using google::protobuf::DescriptorProto;
using google::protobuf::FieldDescriptorProto;
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

TEST(Markup, UnknownFieldsAndEnumeratorsLeaveTheirFieldUnset)
{
    const LogCapture log;
    FieldDescriptorProto field;
    FromJson(R"({"name":"n","type":"TYPE_NEW","label":77,"unknown":{"a":[1,{"b":null}]},"number":null})", &field);
    EXPECT_EQ(field.ShortDebugString(), R"(name: "n")");
    FromJson(R"({"type":"TYPE_BOOL","label":1,"typeName":"t"})", &field); // replaces
    EXPECT_EQ(field.ShortDebugString(), R"(label: LABEL_OPTIONAL type: TYPE_BOOL type_name: "t")");
    FromJson(R"({"type":4294967296,"label":"1","number":"7","extendee":"first","extendee":"x"})", &field);
    EXPECT_EQ(field.ShortDebugString(), R"(extendee: "x" number: 7 label: LABEL_OPTIONAL)");
    DescriptorProto lists; // lose what is unset, and of a list given twice the last counts
    FromJson(R"({"reserved_name":["a"],"field":[null,{"type":"TYPE_NEW"}],"reserved_name":["b",null]})", &lists);
    EXPECT_EQ(lists.ShortDebugString(), R"(field { } reserved_name: "b")");
    const std::size_t before = log.Count(DPrint::LEVEL_ERROR);
    FromJson(R"({"label":"LABEL_LATER"})", &field);
    FromJson(R"({"label":"LABEL_LATER"})", &field);
    EXPECT_EQ(log.Count(DPrint::LEVEL_ERROR), before + 1) << "told once, not with every record that holds it";
}

TEST(Markup, AnythingElseIsAnErrorAndChangesNothing)
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
        Portico::Error answer; // which travels on as JSON
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

TEST(Markup, UnwrapsTheRootOnlyWhereItIsTheSoleKey)
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
