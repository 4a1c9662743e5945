#include "commands/GetEncryptedDataResponse.h"

namespace VEQ {

std::string GetEncryptedDataResponse::Serialize(const GetEncryptedDataResponse& response)
{
    return response.encryptedText;
}

}  // namespace VEQ
