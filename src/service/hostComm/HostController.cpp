#include "HostController.h"

#include <utility>

#include "ConnectionManager.h"
#include "Log.h"
#include "ResponseDataGenerator.h"

namespace Parvane {

void HostController::SetListener(std::shared_ptr<HostEventListener> listener)
{
    mListener = std::move(listener);
}

void HostController::Connect()
{
    ConnectionManager *const connection = ConnectionManager::GetInstance();
    connection->InitializeTALConnection();
    connection->SetListener(this);
}

void HostController::OnDataReceived(const uint8_t *data, std::size_t size)
{
    std::shared_ptr<HeaderData> request = mParser.Parse(data, size);
    if (request && mListener) {
        mListener->OnRequestEvent(std::move(request));
    }
}

void HostController::OnServiceTerminated()
{
    if (mListener) {
        mListener->OnHostServiceTerminated();
    }
}

void HostController::OnConnectionReleased()
{
    if (mListener) {
        mListener->OnHostDisconnected();
    }
}

void HostController::SendResponse(std::shared_ptr<HeaderData> record)
{
    const ResponseDataGenerator generator;
    const auto packets = generator.GenerateResponse(std::move(record));
    ConnectionManager *const connection = ConnectionManager::GetInstance();
    if (!packets || packets->empty()) {
        PARVANE_WARN("dataList is NULL or empty");
        return;
    }
    for (const std::shared_ptr<PacketData> &packet : *packets) {
        connection->SendToHost(packet->mBuffer.get(), static_cast<int32_t>(packet->mSize));
    }
}

} // namespace Parvane
