<?php

declare(strict_types=1);

namespace Quorvex\Authority;

/** Writes the two kinds of answer: records with named, typed columns, and error blocks. */
final class Answer
{
    private const BEGIN = '***BEGIN***';
    private const ERROR = '***ERROR***';
    private const DONE = '***DONE***';

    /** Bytes that have an escape of their own; other control bytes travel as \xHH. */
    private const ESCAPES = ['\\' => '\\\\', "\n" => '\\n', "\r" => '\\r', "\t" => '\\t'];

    /**
     * A data answer.
     *
     * @param array<string, string> $columns column name => type, "I" or "S"
     * @param list<list<int|string>> $records values in column order
     */
    public static function data(array $columns, array $records): string
    {
        $lines = [
            self::BEGIN,
            (string) count($records),
            implode('|', array_keys($columns)),
            implode('|', $columns),
            ...array_map(self::record(...), $records),
            self::DONE,
        ];
        return implode("\n", $lines) . "\n";
    }

    /** An error block; the source names the page that refused. */
    public static function error(Fault $fault, string $source, string $description): string
    {
        $lines = [
            self::ERROR,
            (string) $fault->value,
            'severity: ' . $fault->severity(),
            'server: ' . gethostname(),
            'source: ' . $source,
            'description: ' . $description,
            self::DONE,
        ];
        return implode("\n", $lines) . "\n";
    }

    /** Escapes a value so that it fits between two bars of a record line. */
    public static function escape(string $value): string
    {
        return preg_replace_callback(
            '/[\x00-\x1f\x7f|\\\\]/',
            static fn (array $hit): string => self::ESCAPES[$hit[0]] ?? sprintf('\\x%02x', ord($hit[0])),
            $value
        );
    }

    /** @param list<int|string> $values */
    private static function record(array $values): string
    {
        $line = implode('|', array_map(static fn (int|string $v): string => self::escape((string) $v), $values));
        // A value that looks like the end mark must not end the records.
        return str_starts_with($line, self::DONE) ? '\\x2a' . substr($line, 1) : $line;
    }
}
