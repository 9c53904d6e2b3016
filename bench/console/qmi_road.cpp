#include "qmi_road.h"

#include <stdlib.h>
#include <sys/eventfd.h>

#include <chrono>
#include <filesystem>

#include "bench_module.h"

namespace bench {
namespace {

using namespace std::chrono_literals;

constexpr auto kServiceDeadline = 30s;

}  // namespace

QmiRoad::QmiRoad(BenchModule& module)
    : module_(module),
      wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      client_([this](const std::string& text) {
          module_.record().qmi_indication(text);
          put(text);
      }) {}

QmiRoad::~QmiRoad() {
    client_.disconnect();
    module_.loop().unwatch(wake_.get());
    std::error_code ignored;
    if (!folder_.empty()) {
        std::filesystem::remove_all(folder_, ignored);
    }
}

bool QmiRoad::open(const std::function<void()>& opened) {
    std::string folder = (std::filesystem::temp_directory_path() / "vexa-qmi-XXXXXX").string();
    if (mkdtemp(folder.data()) == nullptr || !wake_.is_open()) {
        return fail("no folder for the QMI service's socket");
    }
    folder_ = folder;
    const std::string socket = folder_ + "/service";
    setenv("VEXA_QMI_SOCKET", socket.c_str(), 1);
    if (!module_.start_program("vexa-qmi-host", {"--socket", socket}) ||
        !client_.connect(kServiceDeadline)) {
        return fail("the QMI AT service does not answer");
    }
    module_.loop().watch(wake_.get(), [this] { take(); });
    opened();
    return true;
}

void QmiRoad::send(std::string_view bytes) {
    module_.record().qmi_request(bytes);
    client_.ask_later(bytes, [this](const QmiAnswer& answer) {
        if (answer.arrived) {
            module_.record().qmi_answer(answer.text, answer.result, answer.error);
        }
        if (!answer.arrived) {
            put({}, "the QMI AT service went away");
        } else if (answer.result != 0) {
            put(answer.text, "the QMI AT service says: result " + std::to_string(answer.result) +
                                 ", error " + std::to_string(answer.error));
        } else {
            put(answer.text);
        }
    });
}

void QmiRoad::put(std::string bytes, std::string note) {
    {
        const std::lock_guard lock(mutex_);
        waiting_.push_back({std::move(bytes), std::move(note)});
    }
    eventfd_write(wake_.get(), 1);
}

void QmiRoad::take() {
    eventfd_t count = 0;
    eventfd_read(wake_.get(), &count);
    std::deque<Heard> got;
    {
        const std::lock_guard lock(mutex_);
        got.swap(waiting_);
    }
    for (const Heard& one : got) {
        if (!one.bytes.empty()) {
            heard(one.bytes);
        }
        if (!one.note.empty()) {
            aside(one.note);
        }
    }
}

}  // namespace bench
