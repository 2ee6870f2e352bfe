#include "QelHttpDnsSDK/QelDNSApplication.h"

#include "QelHttpDnsSDK/Platform/ApplicationLifecycle.h"
#include "QelHttpDnsSDK/Platform/Console.h"
#include "QelHttpDnsSDK/Platform/MainBundle.h"
#include "QelHttpDnsSDK/Platform/NotificationCenter.h"
#include "QelHttpDnsSDK/Platform/TransportSettings.h"
#include "QelHttpDnsSDK/Platform/UserDefaults.h"

void QelDNSApplication::setBundleIdentifier(std::optional<std::string> bundleIdentifier) {
    qel::platform::MainBundle::setIdentifier(std::move(bundleIdentifier));
}

void QelDNSApplication::didEnterBackground() {
    qel::platform::NotificationCenter::defaultCenter().post(
        qel::platform::UIApplicationDidEnterBackgroundNotification);
}

void QelDNSApplication::willEnterForeground() {
    qel::platform::NotificationCenter::defaultCenter().post(
        qel::platform::UIApplicationWillEnterForegroundNotification);
}

bool QelDNSApplication::setStorePath(const std::string& path) {
    return qel::platform::UserDefaults::setStandardPath(path);
}

void QelDNSApplication::setLogSink(LogSink sink) {
    qel::platform::Console::setSink(std::move(sink));
}

void QelDNSApplication::setProxy(std::optional<std::string> proxy) {
    qel::platform::TransportSettings::setProxy(std::move(proxy));
}

void QelDNSApplication::setCaFile(std::string path) {
    qel::platform::TransportSettings::setCaFile(std::move(path));
}

void QelDNSApplication::setPinnedPublicKey(std::string pin) {
    qel::platform::TransportSettings::setPinnedPublicKey(std::move(pin));
}
