// Asks the service for its status as an app on the user side, and prints the answer.

#include <sdk/AppClient.h>

#include <iostream>

int main()
{
    Veq::Sdk::AppClientOptions options;
    options.extensionId = "com.example.hello";
    options.extensionName = "Hello";
    Veq::Sdk::AppClient client(options);
    Veq::Sdk::AppClient::Result result;
    if (auto error = client.Send("Get-VeqStatus", "{}", result)) {
        std::cerr << error.Message() << "\n";
        return 1;
    }
    std::cout << result.message.notification.payload << "\n";
    return result.isSuccess ? 0 : 1;
}
