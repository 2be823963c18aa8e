#include "http/HSMResponse.h"

#include <ostream>

namespace Http
{

std::ostream& operator<<(std::ostream& stream, const HSMResponse& response)
{
    return stream << "HSMResponse { success: " << response.success << ", status: " << response.status << ", response{ "
                  << response.body << " } }, ";
}

} // namespace Http
