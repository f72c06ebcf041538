// SPDX-License-Identifier: MIT
// src/upload/session_owner.h: the owner of an upload service, if there is one.
#pragma once

#include <QObject>

class KSession : public QObject
{
    Q_OBJECT

public:
    using QObject::QObject;

public Q_SLOTS:
    virtual void Destroyes(void *p, int t) = 0; // connected to KWorkThread::Destroyes, which nothing emits
};
