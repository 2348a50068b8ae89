// A private Apache with WebDAV on loopback for the comparison script: starts it below the given
// folder, prints "URL DOCUMENT_ROOT" on one line, and stops it when its standard input closes.
#include <QCoreApplication>
#include <QTextStream>
#include <iostream>
#include <string>
#include "ApacheServer.h"

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    sync::test::ApacheServer::Options options;
    if (argc > 1) options.parent = QString::fromLocal8Bit(argv[1]);
    const QString unavailable = sync::test::ApacheServer::Unavailable();
    if (!unavailable.isEmpty()) {
        std::cerr << unavailable.toStdString() << std::endl;
        return 2;
    }
    sync::test::ApacheServer server(options);
    QString error;
    if (!server.Start(&error)) {
        std::cerr << error.toStdString() << std::endl;
        return 1;
    }
    std::cout << server.Url().toStdString() << ' ' << server.DocumentRoot().toStdString()
              << std::endl;
    std::string line;
    while (std::getline(std::cin, line)) {
    }
    server.Stop();
    return 0;
}
