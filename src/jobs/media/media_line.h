#pragma once

#include <QByteArray>
#include <QList>

// How we and the converting process talk: a job or an answer is a line of fields between tabs, each
// percent-encoded, because names hold anything. Jobs: "sound" or "image", the type's number, the folder
// relative to the one that the process works in, and the names of the source, the target and the
// temporary file. Answers: "done", or "failed" and a reason; "working" any number of times before.

QByteArray mediaLine(const QList<QByteArray> &fields);

/// `line` is without its end.
QList<QByteArray> fieldsOfMediaLine(const QByteArray &line);
