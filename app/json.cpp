#include "json.hpp"

#include "core.hpp"
#include "log-output.hpp"
#include "zepho-json.hpp"
#include "zepho-log.hpp"

#include <cstdio>

namespace {

constexpr char log_source[] = "../json.c";

// Entries of the tables, in order.
enum top_entry : int8_t { TOP_TYPE, TOP_MODEM, TOP_MODEM_SIZE, TOP_END, TOP_SIZE };
enum port_entry : int8_t { PORT_TYPE, PORT_NAME, PORT_END, PORT_SIZE };
enum modem_entry : int8_t {
    MODEM_PROBING_MODE,
    MODEM_VID,
    MODEM_PID,
    MODEM_DEV_PATH,
    MODEM_USB_SERIAL,
    MODEM_MODEL_NAME,
    MODEM_IMEI,
    MODEM_CFUN,
    MODEM_VERSIONS,
    MODEM_PORT,
    MODEM_PORT_SIZE,
    MODEM_END,
    MODEM_SIZE
};

struct modem_texts {
    char vid[7];
    char pid[7];
};

char output[10240];
uint8_t modem_count;
modem_texts texts[MAX_MODEM_NUMBER];
json_entry port_tables[MAX_MODEM_NUMBER][MAX_MODEM_PORTS][PORT_SIZE];
json_entry modem_tables[MAX_MODEM_NUMBER][MODEM_SIZE];
json_entry top_table[TOP_SIZE] = {
    {"type", "", JSON_TEXT},
    {"modem", modem_tables, JSON_ARRAY},
    {"modem_size", &modem_count, JSON_ARRAY_SIZE},
    {nullptr, nullptr, JSON_END},
};

void prepare_modem(uint8_t index)
{
    static constexpr const char *names[] = {"probing_mode", "vid",  "pid",  "dev_path", "usb_serial",
                                            "model_name",   "imei", "cfun", "versions"};
    json_entry *const table = modem_tables[index];
    for (int8_t i = 0; i < MODEM_PORT; ++i)
        table[i] = {names[i], "", JSON_TEXT};
    table[MODEM_VID].value = texts[index].vid;
    table[MODEM_PID].value = texts[index].pid;
    table[MODEM_PORT] = {"modem_port", port_tables[index], JSON_ARRAY};
    table[MODEM_PORT_SIZE] = {"modem_port_size", nullptr, JSON_ARRAY_SIZE};
    table[MODEM_END] = {nullptr, nullptr, JSON_END};
    for (auto &port : port_tables[index]) {
        port[PORT_TYPE] = {"port_type", "", JSON_TEXT};
        port[PORT_NAME] = {"port_name", "", JSON_TEXT};
        port[PORT_END] = {nullptr, nullptr, JSON_END};
    }
}

void describe_modem(uint8_t index, const modem *m)
{
    json_entry *const table = modem_tables[index];
    snprintf(texts[index].vid, sizeof texts[index].vid, "0x%04X", m->usb_id.vid & 0xFFFFU);
    snprintf(texts[index].pid, sizeof texts[index].pid, "0x%04X", m->usb_id.pid & 0xFFFFU);
    json_update(table, MODEM_PROBING_MODE, probing_mode_name(m->probing_mode), JSON_TEXT);
    json_update(table, MODEM_DEV_PATH, m->dev_path, JSON_TEXT);
    json_update(table, MODEM_USB_SERIAL, m->usb_serial, JSON_TEXT);
    json_update(table, MODEM_MODEL_NAME, m->model_name, JSON_TEXT);
    json_update(table, MODEM_IMEI, m->imei, JSON_TEXT);
    json_update(table, MODEM_CFUN, m->cfun, JSON_TEXT);
    json_update(table, MODEM_VERSIONS, m->versions, JSON_TEXT);
    json_update(table, MODEM_PORT_SIZE, &m->modem_port_size, JSON_ARRAY_SIZE);
    for (uint8_t i = 0; i < m->modem_port_size && i < MAX_MODEM_PORTS; ++i) {
        json_update(port_tables[index][i], PORT_TYPE, port_type_name(m->modem_port[i].port_type), JSON_TEXT);
        json_update(port_tables[index][i], PORT_NAME, m->modem_port[i].port_name, JSON_TEXT);
    }
}

} // namespace

bool setup_json_output()
{
    core_log_set_pprint(CORE_LOG_PPRINT_JSON);
    if (!core_log_set_json_buffer(output, sizeof output)) {
        log_err("Unable to set JSON buffer");
        return false;
    }
    for (uint8_t i = 0; i < MAX_MODEM_NUMBER; ++i)
        prepare_modem(i);
    return true;
}

void json_set_event(bool removed)
{
    json_update(top_table, TOP_TYPE, removed ? "REMOVE" : "ADD", JSON_TEXT);
}

void json_print_modems(const modem *modems, uint8_t max_modems)
{
    memset(output, 0, sizeof output);
    modem_count = 0;
    for (uint8_t i = 0; i < max_modems && modem_count < MAX_MODEM_NUMBER; ++i) {
        if (modems[i].model_name[0] != '\0')
            describe_modem(modem_count++, &modems[i]);
    }
    if (modem_count == 0)
        return;
    core_log_json(CORE_LOG_INF, log_source, JSON_TYPE_CUSTOM, __LINE__, reinterpret_cast<char *>(top_table));
}
