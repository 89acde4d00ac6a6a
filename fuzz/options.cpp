// Command lines. What is accepted fits where it is used.
#include "app_options.h"
#include "support.h"

void fuzz(FuzzedDataProvider &&input)
{
    std::vector<std::string> words(input.ConsumeIntegralInRange(0U, 20U));
    std::vector<char *> arguments;
    for (std::string &word : words) {
        word = input.ConsumeRandomLengthString();
        arguments.push_back(word.data());
    }
    AppOptions o;
    if (app_parse_options(static_cast<int>(words.size()), arguments.data(), &o) == APP_OPTIONS_OK) {
        assert(o.param_value_length <= sizeof o.param_value);
        assert(o.inter_packet >= 0 || o.fw_name != nullptr);
        assert(o.wait <= 86'400 &&
               !(o.all && (o.once || app_choose_action(&o) <= APP_UPGRADE_FIRMWARE)));
        assert(o.tx_frame == nullptr || strlen(o.tx_frame) / 2 <= APP_PATH_SIZE);
        assert(o.fw_name == nullptr || strlen(o.fw_name) < APP_PATH_SIZE);
        assert(o.download_name == nullptr || strlen(o.download_name) < APP_PATH_SIZE);
    }
}
