#include <PorticoClientIF.h>

#include <PorticoError.pb.h>

void PorticoClientIF::AnswerMarkupError(const Response& error, const std::string& text)
{
    Portico::Error answer;
    answer.set_code(0);
    answer.set_subcode(Portico::kSubcodeMarkup);
    answer.set_message(text);
    error(answer);
}
