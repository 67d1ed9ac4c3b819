#include "kx/KXDPQServer.h"

#include <mutex>
#include <utility>

#include "kx/log.h"
#include "platform/message/message_connection.h"
#include "platform/message/message_object.h"
#include "platform/message/shared_memory.h"

KXDPQServer::KXDPQServer(Passkey, std::shared_ptr<kx::Queue> queue)
    : connectionsQueue_(kx::Queue::Create("connection_queue")),
      timerQueue_(kx::Queue::Create("idle_timer")),
      eventQueue_(std::move(queue)) {}

KXDPQServer::~KXDPQServer() {
  connectionsQueue_->sync([this] {
    for (const std::shared_ptr<KXDPQConnection>& connection : connections_) {
      connection->setMessageHandler(nullptr);
      connection->setDisconnectHandler(nullptr);
    }
    connections_.clear();
  });
  // Nobody can observe the listener's events any more (its callback holds
  // the server weakly): closing it refuses new clients instead of accepting
  // and dropping them. Peers already accepted stay open until they leave.
  if (conn_) conn_->cancel();
}

std::shared_ptr<KXDPQServer> KXDPQServer::self() {
  return std::static_pointer_cast<KXDPQServer>(shared_from_this());
}

std::shared_ptr<KXDPQServer> KXDPQServer::initListenerWithServiceName(
    std::string_view serviceName, std::shared_ptr<kx::Queue> queue) {
  auto server = std::make_shared<KXDPQServer>(Passkey{}, queue);
  server->conn_ = kx::MessageConnection::CreateListener(serviceName, std::move(queue));
  std::weak_ptr<KXDPQServer> weak = server;
  server->conn_->setEventHandler([weak](const kx::MessageObject& event) {
    std::shared_ptr<KXDPQServer> server = weak.lock();
    if (!server || server->isShutdown()) return;
    if (event.type() == kx::MessageType::Connection) {
      server->_handleNewConnection(event.connection());
      return;
    }
    KXLOG(7, "%@ %s", server, KXDPQConnection::StringForDPQType(event.type()));
  });
  return server;
}

std::shared_ptr<KXDPQServer> KXDPQServer::initListenerWithServiceName(std::string_view serviceName) {
  return initListenerWithServiceName(serviceName, kx::Queue::Main());
}

void KXDPQServer::startListening() { conn_->resume(); }

void KXDPQServer::_handleNewConnection(std::shared_ptr<kx::MessageConnection> peer) {
  // Resumed only once the handlers are in place, so the peer's first
  // message cannot arrive before there is anyone to hand it to.
  std::shared_ptr<KXDPQConnection> connection = KXDPQConnection::_wrapDPQConnection(std::move(peer));
  if (!connection) return;
  connectionsQueue_->sync([&] { connections_.insert(connection); });

  std::weak_ptr<KXDPQServer> weakServer = self();
  std::weak_ptr<KXDPQConnection> weakConnection = connection;
  connection->setMessageHandler(
      [weakServer, weakConnection](const std::shared_ptr<KXDPQMessage>& message) {
        std::shared_ptr<KXDPQServer> server = weakServer.lock();
        if (!server || server->isShutdown()) return;
        std::shared_ptr<KXDPQConnection> connection = weakConnection.lock();
        if (!connection) return;
        if (std::shared_ptr<const Handler> handler = server->_handlerForMessageName(message->name()))
          (*handler)(connection, message);
      });
  connection->setDisconnectHandler([server = self(), weakConnection] {
    std::shared_ptr<const DisconnectHandler> handler;
    {
      std::shared_lock lock(server->handlersMu_);
      handler = server->disconnectHandler_;
    }
    std::shared_ptr<KXDPQConnection> connection = weakConnection.lock();
    if (!connection) return;
    server->connectionsQueue_->sync([&] { server->connections_.erase(connection); });
    if (handler) (*handler)(connection);
  });
  connection->_resume();
}

void KXDPQServer::setHandlerForMessageName(std::optional<std::string> name, Handler handler) {
  auto stored = handler ? std::make_shared<const Handler>(std::move(handler)) : nullptr;
  std::unique_lock lock(handlersMu_);
  if (!name) {
    std::swap(defaultMessageHandler_, stored);
  } else if (stored) {
    handlerMap_.insert_or_assign(std::move(*name), std::move(stored));
  } else {
    handlerMap_.erase(*name);
  }
}

std::shared_ptr<const KXDPQServer::Handler> KXDPQServer::_handlerForMessageName(
    const std::optional<std::string>& name) const {
  std::shared_lock lock(handlersMu_);
  if (name) {
    auto it = handlerMap_.find(std::string_view(*name));
    if (it != handlerMap_.end()) return it->second;
  }
  return defaultMessageHandler_;
}

bool KXDPQServer::shutdown() {
  shutdown_.store(true, std::memory_order_release);
  return true;
}

KXDPQServer::Handler KXDPQServer::defaultMessageHandler() const {
  std::shared_lock lock(handlersMu_);
  return defaultMessageHandler_ ? *defaultMessageHandler_ : Handler();
}

void KXDPQServer::setDefaultMessageHandler(Handler handler) {
  setHandlerForMessageName(std::nullopt, std::move(handler));
}

KXDPQServer::DisconnectHandler KXDPQServer::disconnectHandler() const {
  std::shared_lock lock(handlersMu_);
  return disconnectHandler_ ? *disconnectHandler_ : DisconnectHandler();
}

void KXDPQServer::setDisconnectHandler(DisconnectHandler handler) {
  auto stored = handler ? std::make_shared<const DisconnectHandler>(std::move(handler)) : nullptr;
  std::unique_lock lock(handlersMu_);
  std::swap(disconnectHandler_, stored);
}

std::vector<std::shared_ptr<KXDPQConnection>> KXDPQServer::connections() const {
  std::vector<std::shared_ptr<KXDPQConnection>> snapshot;
  connectionsQueue_->sync([&] { snapshot.assign(connections_.begin(), connections_.end()); });
  return snapshot;
}
